#pragma once
// Stand-in for OpenUSD 25.05's pxr/pxr.h: namespace macros and version, for builds without it.

#define PXR_MAJOR_VERSION 0
#define PXR_MINOR_VERSION 25
#define PXR_PATCH_VERSION 5
#define PXR_VERSION 2505

#define PXR_USE_NAMESPACES 1
#define PXR_NS pxr
#define PXR_NS_GLOBAL ::PXR_NS
// Deliberately not OpenUSD's own internal namespace: a host may load a real OpenUSD next to a
// library built against this stand-in, and the two sets of symbols must not bind to each other.
#define PXR_INTERNAL_NS vorelUsdStandIn_v0_25_5

namespace PXR_INTERNAL_NS {}

namespace PXR_NS {
using namespace PXR_INTERNAL_NS;
}

#define PXR_NAMESPACE_OPEN_SCOPE namespace PXR_INTERNAL_NS {
#define PXR_NAMESPACE_CLOSE_SCOPE }
#define PXR_NAMESPACE_USING_DIRECTIVE using namespace PXR_NS;
