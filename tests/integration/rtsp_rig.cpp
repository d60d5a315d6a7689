#include "rtsp_rig.h"

#include "input/VeskInputRtsp.h"

namespace rtsp {

Rig::Rig(const QVariantMap& data, bool startNow)
{
    // Naming the class links in the library that registers it.
    add(QString::fromLatin1(VeskInputRtsp::staticMetaObject.className()), data, false);
    if (startNow) start();
}

}  // namespace rtsp
