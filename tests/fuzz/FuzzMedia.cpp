// The targets on the RTSP client's media half all start the same way.
#include "tests/fuzz/FuzzSink.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    silenceQtLog();
    return 0;
}
