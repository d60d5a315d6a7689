// A board integrator's receiver driver as a plug-in: a 1080p50 source that
// is there when its settings say "ready".
#include "driver/VeskDriverCustom.h"

class TestReceiver : public VeskDriverCustom {
    Q_OBJECT
public:
    void start(QMap<QString, QVariant> data) override { ready = data.value("ready").toBool(); }
    QMap<QString, QVariant> getState() override
    {
        return {{"avalible", ready},
                {"width", 1920},
                {"height", 1080},
                {"framerate", 50},
                {"interlace", false}};
    }
    bool ready = false;
};

extern "C" VeskDriverCustom* create()
{
    return new TestReceiver;
}

#include "custom_receiver.moc"
