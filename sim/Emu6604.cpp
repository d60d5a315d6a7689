#include "sim/Emu6604.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <QDebug>
#include <cmath>
#include <cstring>

namespace vsim {

Emu6604::~Emu6604()
{
    if (seg) ::shmdt(seg);
}

void Emu6604::attach(const QVariantMap& settings)
{
    bool ok = false;
    input = settings.value("addr").toString().toInt(&ok, 10);
    if (!ok || input < 0 || input >= kInputs) {
        qWarning("6604 emulator: input \"%s\" is not 0..7; nothing will be written",
                 qPrintable(settings.value("addr").toString()));
        input = -1;
    }
    int id = ::shmget(kKey, kSize, IPC_CREAT | 0666);
    void* p = id == -1 ? reinterpret_cast<void*>(-1) : ::shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        qWarning("6604 emulator: shared memory %#x unavailable: %s", kKey, strerror(errno));
        return;
    }
    seg = static_cast<uint8_t*>(p);
    // A segment left by an earlier run may still hold a locked record:
    // nothing is plugged in until a source says so.
    setSource({});
}

void Emu6604::removeSegment()
{
    int id = ::shmget(kKey, 0, 0);
    if (id != -1) ::shmctl(id, IPC_RMID, nullptr);
}

void Emu6604::setSource(const QVariantMap& source)
{
    if (!seg || input < 0) return;
    int32_t w[7] = {};
    if (!source.isEmpty()) {
        bool interlace = source.value("interlace").toBool();
        int height = source.value("height").toInt();
        w[0] = source.value("width").toInt();
        // The control process reports field lines for an interlaced source.
        w[1] = interlace ? height / 2 : height;
        w[2] = int32_t(std::lround(source.value("framerate").toDouble() * 100));
        w[3] = interlace ? 1 : 0;
        w[6] = 1;
    }
    if (source.contains("rate")) w[2] = source.value("rate").toInt();
    if (source.contains("lock")) w[6] = source.value("lock").toInt();
    std::memcpy(seg + size_t(input) * kRecord, w, kRecord);
}

int32_t Emu6604::word(int n) const
{
    int32_t v = 0;
    if (seg && input >= 0 && n >= 0 && n < 7)
        std::memcpy(&v, seg + size_t(input) * kRecord + size_t(n) * 4, 4);
    return v;
}

static bool registered = registerChipType("6604", [] { return std::make_shared<Emu6604>(); });

}  // namespace vsim
