// HDMI inputs served by a separate control process, which publishes one
// record per input in System V shared memory.
#pragma once

#include <QProcess>

#include "driver/DriverBase.h"

class Driver6604 : public DriverBase {
    Q_OBJECT
public:
    explicit Driver6604(QObject* parent = nullptr);

    static constexpr int kShmKey = 0x3B72;
    static constexpr int kInputs = 8;
    // Seven 32-bit words per input, in the control process's order.
    struct Record {
        int32_t width;
        int32_t height;     // of a field when interlaced
        int32_t rate;       // vertical rate in 0.01 Hz
        int32_t interlace;  // 1 = interlaced
        int32_t unused[2];
        int32_t lock;  // 1 = signal present
    };
    static_assert(sizeof(Record) == 28, "the control process writes 28-byte records");
    static constexpr size_t kShmSize = kInputs * sizeof(Record);

    bool check6604(int index, int& width, int& height, int& framerate, bool& interlace);

    int index = 0;
    QProcess process{this};

    // One control process and one attachment serve every instance.
    static bool inited;
    static int shmid;
    static const void* msgs;

public slots:
    void init() override;
    void onCheck() override;
    void onSetData(QMap<QString, QVariant> newData) override;
};
