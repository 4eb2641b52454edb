#pragma once

#if defined(_WIN32)
#if defined(VOREL_BASE_BUILDING)
#define VOREL_BASE_API __declspec(dllexport)
#else
#define VOREL_BASE_API __declspec(dllimport)
#endif
#else
#define VOREL_BASE_API __attribute__((visibility("default")))
#endif
