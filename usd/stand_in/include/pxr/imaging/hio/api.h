#pragma once
// Stand-in for OpenUSD's pxr/imaging/hio/api.h: the export macro of the Hio stand-in library.

#if defined(_WIN32)
#if defined(HIO_EXPORTS)
#define HIO_API __declspec(dllexport)
#else
#define HIO_API __declspec(dllimport)
#endif
#else
#define HIO_API __attribute__((visibility("default")))
#endif
