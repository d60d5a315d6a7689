#include "driver/video/Driver6604.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <QDebug>
#include <QMutex>
#include <climits>
#include <cmath>
#include <cstring>

#include "frame/VeskSys.h"

bool Driver6604::inited = false;
int Driver6604::shmid = -1;
const void* Driver6604::msgs = nullptr;

namespace {
// Several capture nodes may poll their inputs on different threads; the
// first attachment must happen once.
QMutex attachLock;
bool getFailed = false;
}  // namespace

Driver6604::Driver6604(QObject* parent) : DriverBase(parent) {}

void Driver6604::init()
{
    if (inited) return;
    inited = true;
    qDebug() << "6604 start";
    // A control process left by an earlier host would fight the new one for
    // the chips.
    vsys::system("pkill it6604_ctrl");
    process.start(vsys::path("/vesk/bin/it6604_ctrl_8"), QStringList(), QIODevice::ReadWrite);
}

void Driver6604::onSetData(QMap<QString, QVariant>)
{
    index = data.value("addr").toString().toInt(nullptr, 10);
}

bool Driver6604::check6604(int idx, int& width, int& height, int& framerate, bool& interlace)
{
    const void* base;
    {
        QMutexLocker locker(&attachLock);
        if (shmid == -1) {
            // Whichever side comes first creates the segment. A failed get is
            // tried again on the next pass; a failed attach is final.
            shmid = vsys::shmget(kShmKey, kShmSize, IPC_CREAT | 0666);
            if (shmid != -1) {
                void* p = vsys::shmat(shmid, nullptr, SHM_RDONLY);
                msgs = p == reinterpret_cast<void*>(-1) ? nullptr : p;
                if (!msgs) qDebug("6604: shmat %#x failed", kShmKey);
            } else if (!getFailed) {
                qDebug("6604: shmget %#x failed", kShmKey);
                getFailed = true;
            }
        }
        base = msgs;
    }
    if (!base) return false;
    if (idx < 0 || idx >= kInputs) return false;

    Record r;
    std::memcpy(&r, static_cast<const char*>(base) + size_t(idx) * sizeof(Record), sizeof r);
    width = r.width;
    height = r.height;
    framerate = int(std::round(r.rate / 500.0)) * 5;
    interlace = r.interlace == 1;
    if (interlace) height = int(qBound<int64_t>(INT_MIN, int64_t(height) * 2, INT_MAX));
    return r.lock == 1;
}

void Driver6604::onCheck()
{
    int width = 0, height = 0, framerate = 0;
    bool interlace = false;
    info["avalible"] = check6604(index, width, height, framerate, interlace);
    info["protocol"] = "HDMI";
    if (!info["avalible"].toBool()) return;
    info["width"] = width;
    info["height"] = height;
    info["framerate"] = framerate;
    info["interlace"] = interlace;
}
