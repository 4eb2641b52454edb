#!/usr/bin/env bash
# Builds a minimal real OpenUSD 24.11 install from a source snapshot: the libraries hio and hgi
# and what they link (arch tf gf js trace work plug vt ar hf), their headers, their plugInfo.json
# files, and pxrConfig.cmake/pxrTargets.cmake trimmed to those targets, so that
# find_package(pxr CONFIG) works with -Dpxr_DIR=PREFIX. About 4-5 minutes on 2 cores; nothing else
# of OpenUSD is built.
#
# OPENUSD_SNAPSHOT is the source tarball (default: openusd-24.11-src.tar.xz in shared/openusd
# beside the project): OpenUSD's source tree at release 24.11, without test data, docs and
# usdImaging; pxr/imaging/hio/OpenEXR/OpenEXRCore/dwaLookups.h in it was regenerated with
# OpenEXR 3.2.0's generator.
#
# Usage: build-openusd.sh PREFIX [WORKDIR]     (Debian 12; installs its packages with apt)
#
# PXR_TARGETS names the OpenUSD libraries to build and install with what they link (default
# "hio hgi"); PXR_TARGETS="hio hgi usdUtils" adds the scene description libraries (sdf, pcp, usd,
# usdGeom, usdShade, usdUtils and what they link) for tools that open USD layers and stages.
# With MaterialX_DIR set (a MaterialX install's lib/cmake/MaterialX), OpenUSD is configured with
# its MaterialX support, and the target usdMtlx adds the file format plugin that opens a .mtlx
# document as a layer (PXR_TARGETS="hio hgi usdUtils usdMtlx").
set -euo pipefail
HERE=$(cd "$(dirname "$0")" && pwd)
SNAPSHOT=$(realpath -m "${OPENUSD_SNAPSHOT:-$HERE/../../shared/openusd/openusd-24.11-src.tar.xz}")
MATERIALX=()
if [ -n "${MaterialX_DIR:-}" ]; then
    MATERIALX=(-DPXR_ENABLE_MATERIALX_SUPPORT=ON -DMaterialX_DIR="$(realpath "$MaterialX_DIR")")
fi
PREFIX=$(realpath -m "${1:?usage: build-openusd.sh PREFIX [WORKDIR]}")
WORK=$(realpath -m "${2:-$PREFIX.work}")
SRC=$WORK/src
BLD=$WORK/build
JOBS=${JOBS:-2}
TARGETS=${PXR_TARGETS:-hio hgi}
SUDO=""; [ "$(id -u)" -ne 0 ] && SUDO=sudo

# TBB is required; imaging's configure insists on OpenSubdiv although hio and hgi don't use it.
if ! dpkg -s libtbb-dev libosd-dev ninja-build cmake g++ python3 xz-utils >/dev/null 2>&1; then
    $SUDO apt-get update
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends \
        libtbb-dev libosd-dev ninja-build cmake g++ python3 xz-utils
fi
if [ ! -f "$SRC/CMakeLists.txt" ]; then
    rm -rf "$SRC"; mkdir -p "$SRC"
    tar -C "$SRC" -xJf "$SNAPSHOT"
fi

# 4. Configure: no Python, tests, examples, tutorials, tools, usdview, USD imaging, GL, Vulkan,
#    Metal, PTEX, OpenVDB, OIIO, OCIO, Embree, PRMan, Alembic, Draco, docs; MaterialX only with
#    MaterialX_DIR.
cmake -S "$SRC" -B "$BLD" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$PREFIX" \
    -DPXR_ENABLE_PYTHON_SUPPORT=OFF \
    -DPXR_BUILD_TESTS=OFF -DPXR_BUILD_EXAMPLES=OFF -DPXR_BUILD_TUTORIALS=OFF \
    -DPXR_BUILD_USD_TOOLS=OFF -DPXR_BUILD_USDVIEW=OFF \
    -DPXR_BUILD_IMAGING=ON -DPXR_BUILD_USD_IMAGING=OFF \
    -DPXR_ENABLE_GL_SUPPORT=OFF -DPXR_ENABLE_VULKAN_SUPPORT=OFF -DPXR_ENABLE_METAL_SUPPORT=OFF \
    -DPXR_ENABLE_PTEX_SUPPORT=OFF -DPXR_ENABLE_OPENVDB_SUPPORT=OFF \
    -DPXR_ENABLE_MATERIALX_SUPPORT=OFF "${MATERIALX[@]}" \
    -DPXR_BUILD_OPENIMAGEIO_PLUGIN=OFF -DPXR_BUILD_OPENCOLORIO_PLUGIN=OFF \
    -DPXR_BUILD_EMBREE_PLUGIN=OFF -DPXR_BUILD_PRMAN_PLUGIN=OFF \
    -DPXR_BUILD_ALEMBIC_PLUGIN=OFF -DPXR_BUILD_DRACO_PLUGIN=OFF \
    -DPXR_BUILD_DOCUMENTATION=OFF

# 5. Build only the targets named (and what they link). hio and hgi: about 4 minutes on 2 cores.
cmake --build "$BLD" --target $TARGETS -j"$JOBS"

# 6. Install just the built libraries' directories, the top-level plugInfo.json files, pxr.h,
#    pxrConfig.cmake and the pxrTargets files (LOCAL_ONLY: not the subdirectories).
rm -rf "$PREFIX"
cmake -DCMAKE_INSTALL_LOCAL_ONLY=ON -DCMAKE_INSTALL_PREFIX="$PREFIX" -P "$BLD/cmake_install.cmake"
cmake -DCMAKE_INSTALL_LOCAL_ONLY=ON -DCMAKE_INSTALL_PREFIX="$PREFIX" -P "$BLD/pxr/cmake_install.cmake"
KEEP=$(python3 - "$PREFIX/cmake/pxrTargets.cmake" $TARGETS <<'EOF'
import re, sys
text = open(sys.argv[1]).read()
deps = {}
for m in re.finditer(r'set_target_properties\((\S+) PROPERTIES\n(.*?)\n\)', text, re.S):
    link = re.search(r'INTERFACE_LINK_LIBRARIES "([^"]*)"', m.group(2))
    deps[m.group(1)] = link.group(1).split(';') if link else []
keep, todo = [], sys.argv[2:]
while todo:
    t = todo.pop()
    if t in keep:
        continue
    keep.append(t)
    todo += [d for d in deps.get(t, []) if d in deps]
print(' '.join(keep))
EOF
)
echo "OpenUSD targets kept: $KEEP"
for t in $KEEP; do
    dir=$(find "$BLD/pxr" -maxdepth 2 -mindepth 2 -type d -name "$t" | head -1)
    cmake -DCMAKE_INSTALL_PREFIX="$PREFIX" -P "$dir/cmake_install.cmake" >/dev/null
done

# 7. Trim the export files and pxrConfig.cmake to the targets that were built.
python3 - "$PREFIX" $KEEP <<'EOF'
import re, sys
prefix, keep = sys.argv[1], set(sys.argv[2:])
def trim(path, head_patterns):
    paragraphs = open(path).read().split('\n\n')
    out = []
    for p in paragraphs:
        drop = False
        for pat in head_patterns:
            m = re.match(pat, p.lstrip('\n'))
            if m and m.group(1) not in keep:
                drop = True
        if not drop:
            out.append(p)
    text = '\n\n'.join(out)
    text = re.sub(r'(foreach\(_cmake_expected_target IN ITEMS )([^)]*)\)',
                  lambda m: m.group(1) + ' '.join(t for t in m.group(2).split() if t in keep) + ')',
                  text)
    open(path, 'w').write(text)
trim(prefix + '/cmake/pxrTargets.cmake',
     [r'# Create imported target (\S+)', r'set_target_properties\((\S+) PROPERTIES'])
trim(prefix + '/cmake/pxrTargets-release.cmake',
     [r'# Import target "(\S+)"', r'list\(APPEND _cmake_import_check_targets (\S+) \)'])
cfg = prefix + '/pxrConfig.cmake'
text = open(cfg).read()
text = re.sub(r'(    set\(libs ")([^"]*)("\))',
              lambda m: m.group(0) if m.group(2) == "usd_ms" else m.group(1) + ";".join(t for t in m.group(2).split(";") if t in keep) + m.group(3),
              text)
open(cfg, 'w').write(text)
EOF
echo "OpenUSD prefix ready: $PREFIX (use -Dpxr_DIR=$PREFIX)"
