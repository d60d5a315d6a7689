// h265_decode_sps on an exact-size copy of the input.
#include <cstring>
#include <memory>

#include "tests/fuzz/FuzzSink.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::unique_ptr<unsigned char[]> copy(new unsigned char[size ? size : 1]);
    if (size) memcpy(copy.get(), data, size);
    int width = 0, height = 0;
    h265_decode_sps(copy.get(), unsigned(size), width, height);
    return 0;
}
