// One VeskInputRtsp in the source rig.
#pragma once

#include "source_rig.h"

namespace rtsp {

using srcrig::Event;
using srcrig::Unit;

class Rig : public srcrig::Rig {
public:
    explicit Rig(const QVariantMap& data, bool start = true);
};

}  // namespace rtsp
