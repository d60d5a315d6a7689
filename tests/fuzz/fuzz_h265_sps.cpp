// h265_decode_sps on an exact-size copy of the input.
#include "tests/fuzz/FuzzSink.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int width = 0, height = 0;
    h265_decode_sps(exactCopy(data, size).get(), unsigned(size), width, height);
    return 0;
}
