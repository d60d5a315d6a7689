// A board integrator's receiver driver, built apart from the library against
// its installed headers. It stands for a receiver whose format is fixed by
// the board (a sensor or an FPGA pattern) and given in the interface's
// settings:
//
//   "cam1": {"chip": "custom", "path": "custom-receiver.so",
//            "width": 1920, "height": 1080, "framerate": 30, "interlace": false}
//
// The signal is there once the settings describe a picture; settings that do
// not are said once and leave the input without signal.
#include <cstdio>

#include "driver/VeskDriverCustom.h"

namespace {

// No signals, slots or properties of its own: the meta-object of the
// interface class serves, so the plug-in builds without moc.
class FixedFormatReceiver : public VeskDriverCustom {
public:
    void start(QMap<QString, QVariant> data) override
    {
        width = data.value("width").toInt();
        height = data.value("height").toInt();
        framerate = data.value("framerate").toInt();
        interlace = data.value("interlace").toBool();
        if (width <= 0 || height <= 0 || framerate <= 0)
            std::printf(
                "custom-receiver: no usable \"width\", \"height\", \"framerate\": "
                "no signal\n");
    }

    QMap<QString, QVariant> getState() override
    {
        const bool avalible = width > 0 && height > 0 && framerate > 0;
        if (!avalible) return {{"avalible", false}};
        return {{"avalible", true},
                {"width", width},
                {"height", height},
                {"framerate", framerate},
                {"interlace", interlace}};
    }

private:
    int width = 0, height = 0, framerate = 0;
    bool interlace = false;
};

}  // namespace

extern "C" VeskDriverCustom* create()
{
    return new FixedFormatReceiver;
}
