// HDMI receivers of the IT6602 family (chip words "TC7509" and "IT6801"), and
// the MS7200 on boards that carry it behind the same word. A thread of its
// own owns the chip; a check only reads the device record it fills.
#pragma once

#include <QMutex>

#include "driver/DriverBase.h"

class TC7509;

class DriverTC7509 : public DriverBase {
    Q_OBJECT
public:
    explicit DriverTC7509(QObject* parent = nullptr);
    ~DriverTC7509() override;

    int GetVideoState();
    int GetAudioSamplingRate();
    QMap<QString, QVariant> diagnostics() override;
    TC7509* thread() const { return worker; }

    // What init hands the receiver. The colour mode: the board's
    // "colorMode", else the number in /vesk/config/edid/colorMode, else 0.
    // The EDID: the first 256 bytes of /vesk/config/edid/edid.bin when it
    // has that many, else the built-in one.
    static int colorModeOf(const QMap<QString, QVariant>& data);
    static QByteArray edidOf();

public slots:
    void init() override;
    QVariant callFunc(QString func, QVariant arg) override;
    void onCheck() override;

private:
    static int rateFromCode(int code);
    static int snapRate(int rate);

    TC7509* worker = nullptr;
    QMutex lock;
    QMap<QString, QVariant> work;
    const QList<int> widths = {640,  720,  800,  1024, 1280, 1366, 1440,
                               1600, 1680, 1920, 2560, 3520, 3840};
    const QList<int> heights = {360, 480, 576,  600,  640,  720,  768,  800,
                                900, 960, 1024, 1050, 1080, 1200, 1440, 2160};
    // Kept for reference; the 20 to 140 range test is what decides.
    const QList<int> rates = {24, 25, 30, 50, 60, 120};
};
