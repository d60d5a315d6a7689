// The board a newcomer gets with `--sim` and no file: one HDMI input on the
// register-polled receiver, captured by video input device 0, channel 0 over
// BT.1120, and a source that comes, changes and goes; a second input whose
// signal the front-panel microcontroller reports, a key press on the panel,
// a remote-control code and a bouncing button on GPIO2_1; a third HDMI input
// whose receiver runs its own state machine, with embedded audio whose rate
// the audio side follows: it locks, rides out a brief sync drop, changes its
// audio rate and then its format, and is pulled out; a fourth whose board
// carries the MS7200 behind the same chip word, locking, changing format and
// audio rate, and dropping; a line input
// behind the board's audio codec hearing 440 Hz left and 660 Hz right, which
// falls silent for a second at 10 s; a monitor on the HDMI output. The board also
// carries its no-signal picture and a test JPEG for still-picture sources.
#include <QJsonDocument>

#include "sim/VirtualBoard.h"

namespace vsim {

QVariantMap defaultScenario()
{
    static const char* text = R"({
      "board": {
        "interfaceV": {
          "hdmi1": { "chip": "7611", "did": 0, "cid": 0, "mode": "bt1120" },
          "hdmi2": { "chip": "Vesk", "name": "hdmi2", "protocols": ["HDMI", "SDI"],
                     "did": 1, "cid": 4, "mode": "bt1120" },
          "hdmi3": { "chip": "TC7509", "i2c_num": 2, "did": 2, "cid": 8, "mode": "bt1120" },
          "hdmi4": { "chip": "TC7509", "i2c_num": 3, "did": 3, "cid": 12, "mode": "bt1120" }
        },
        "interfaceA": {
          "hdmi1": { "chip": "7611" },
          "hdmi3": { "chip": "TC7509", "did": 2, "cid": 0 },
          "hdmi4": { "chip": "TC7509" },
          "line": { "chip": "tlv32", "did": 0, "cid": 0, "mode": "i2ss" }
        }
      },
      "chips": [
        { "name": "hdmi1", "type": "7611", "bus": 1 },
        { "name": "hdmi3", "type": "IT6602", "bus": 2 },
        { "name": "hdmi4", "type": "MS7200", "i2c_num": 3 },
        { "name": "line", "type": "tlv32" },
        { "name": "mcu", "type": "Vesk", "version": "panel 2.1", "on_mode": "on", "cfgtype": "3",
          "inputs": { "hdmi2": { "lock": 0 } } }
      ],
      "timeline": [
        { "at": 0,  "chip": "hdmi1", "source": {} },
        { "at": 0,  "mem": "0x1102A008", "value": 602 },
        { "at": 0,  "ai": 0, "tone": [440, 660] },
        { "at": 0,  "hdmi": "plug" },
        { "at": 1.5, "chip": "hdmi3",
                    "source": { "width": 1920, "height": 1080, "framerate": 60, "samplerate": 48000 } },
        { "at": 1.5, "ai": 2, "tone": [1000], "samplerate": 48000 },
        { "at": 2,  "chip": "hdmi1", "source": { "width": 1920, "height": 1080, "framerate": 60 } },
        { "at": 2.5, "chip": "hdmi4",
                    "source": { "width": 1920, "height": 1080, "framerate": 60, "samplerate": 48000 } },
        { "at": 3,  "chip": "mcu", "input": "hdmi2",
                    "source": { "lock": 2, "w": 1920, "h": 1080, "f": 50, "p": 1, "as": 48000 } },
        { "at": 4,  "chip": "mcu", "key": "menu", "act": "press" },
        { "at": 4.2, "chip": "mcu", "key": "menu", "act": "release" },
        { "at": 5,  "ir": { "high": 0, "low": 1088438015, "state": 1 } },
        { "at": 5.5, "chip": "hdmi3", "source": { "width": 1920, "height": 1080, "framerate": 60,
                    "samplerate": 48000, "sync": false } },
        { "at": 5.6, "chip": "hdmi3",
                    "source": { "width": 1920, "height": 1080, "framerate": 60, "samplerate": 48000 } },
        { "at": 6,  "gpio": "GPIO2_1", "edges": [ { "ms": 0, "level": 0 }, { "ms": 4, "level": 1 },
                    { "ms": 9, "level": 0 }, { "ms": 180, "level": 1 } ] },
        { "at": 6.5, "chip": "hdmi4",
                    "source": { "width": 1280, "height": 720, "framerate": 50, "samplerate": 44100 } },
        { "at": 7,  "chip": "hdmi3",
                    "source": { "width": 1920, "height": 1080, "framerate": 60, "samplerate": 44100 } },
        { "at": 7,  "ai": 2, "samplerate": 44100 },
        { "at": 8,  "chip": "hdmi1", "source": { "width": 1280, "height": 720, "framerate": 50 } },
        { "at": 9,  "chip": "hdmi3",
                    "source": { "width": 1280, "height": 720, "framerate": 50, "samplerate": 44100 } },
        { "at": 10, "chip": "mcu", "input": "hdmi2", "source": { "lock": 0 } },
        { "at": 10, "ai": 0, "stop": true },
        { "at": 11, "ai": 0, "stop": false },
        { "at": 11.5, "chip": "hdmi4", "source": {} },
        { "at": 12, "chip": "hdmi1", "source": {} },
        { "at": 13, "chip": "hdmi3", "source": {} }
      ]
    })";
    QVariantMap m = QJsonDocument::fromJson(text).toVariant().toMap();
    QVariantMap files;
    files["/vesk/config/edid.bin"] = QVariantMap{{"builtin", "monitor.edid"}};
    files["/vesk/config/nosignal.yuv"] = QVariantMap{{"builtin", "nosignal.yuv"}};
    files["/vesk/pictures/testsrc.jpg"] = QVariantMap{{"builtin", "testsrc.jpg"}};
    m["files"] = files;
    return m;
}

}  // namespace vsim
