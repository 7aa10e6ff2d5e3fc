// What the fuzz targets share: the libFuzzer entry every target defines, and
// a check that stops the run (so the fuzzer keeps the input) when a property
// of the parser's output does not hold.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

#define ZVXFER_FUZZ_CHECK(condition)                                                               \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);     \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)
