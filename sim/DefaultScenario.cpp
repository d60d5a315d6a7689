// The board a newcomer gets with `--sim` and no file: one HDMI input on the
// register-polled receiver, captured by video input device 0, channel 0 over
// BT.1120, and a source that comes, changes and goes; a second input whose
// signal the front-panel microcontroller reports, a key press on the panel,
// a remote-control code and a bouncing button on GPIO2_1; a line input
// behind the board's audio codec hearing 440 Hz left and 660 Hz right, which
// falls silent for a second at 10 s. The board also
// carries its no-signal picture and a test JPEG for still-picture sources.
#include <QJsonDocument>

#include "sim/VirtualBoard.h"

namespace vsim {

// A plain 1080p60 monitor EDID, so the receiver has something sensible to
// advertise; the checksum byte makes the block valid.
static QString defaultEdidHex()
{
    QByteArray e(256, 0);
    const unsigned char head[] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x59, 0x53,
                                  0x11, 0x76, 0x01, 0x00, 0x00, 0x00, 0x01, 0x1E, 0x01, 0x03,
                                  0x80, 0x50, 0x2D, 0x78, 0x0A, 0x0D, 0xC9, 0xA0, 0x57, 0x47,
                                  0x98, 0x27, 0x12, 0x48, 0x4C, 0x00, 0x00, 0x00};
    for (size_t i = 0; i < sizeof head; i++) e[int(i)] = char(head[i]);
    // First detailed timing: 1920x1080 at 148.5 MHz.
    const unsigned char dtd[] = {0x02, 0x3A, 0x80, 0x18, 0x71, 0x38, 0x2D, 0x40, 0x58,
                                 0x2C, 0x45, 0x00, 0x20, 0xC2, 0x31, 0x00, 0x00, 0x1E};
    for (size_t i = 0; i < sizeof dtd; i++) e[int(54 + i)] = char(dtd[i]);
    unsigned sum = 0;
    for (int i = 0; i < 127; i++) sum += uint8_t(e[i]);
    e[127] = char((256 - sum % 256) % 256);
    return QString::fromLatin1(e.toHex());
}

QVariantMap defaultScenario()
{
    static const char* text = R"({
      "board": {
        "interfaceV": {
          "hdmi1": { "chip": "7611", "did": 0, "cid": 0, "mode": "bt1120" },
          "hdmi2": { "chip": "Vesk", "name": "hdmi2", "protocols": ["HDMI", "SDI"],
                     "did": 1, "cid": 4, "mode": "bt1120" }
        },
        "interfaceA": {
          "hdmi1": { "chip": "7611" },
          "line": { "chip": "tlv32", "did": 0, "cid": 0, "mode": "i2ss" }
        }
      },
      "chips": [
        { "name": "hdmi1", "type": "7611", "bus": 1 },
        { "name": "line", "type": "tlv32" },
        { "name": "mcu", "type": "Vesk", "version": "panel 2.1", "on_mode": "on", "cfgtype": "3",
          "inputs": { "hdmi2": { "lock": 0 } } }
      ],
      "timeline": [
        { "at": 0,  "chip": "hdmi1", "source": {} },
        { "at": 0,  "mem": "0x1102A008", "value": 602 },
        { "at": 0,  "ai": 0, "tone": [440, 660] },
        { "at": 2,  "chip": "hdmi1", "source": { "width": 1920, "height": 1080, "framerate": 60 } },
        { "at": 3,  "chip": "mcu", "input": "hdmi2",
                    "source": { "lock": 2, "w": 1920, "h": 1080, "f": 50, "p": 1, "as": 48000 } },
        { "at": 4,  "chip": "mcu", "key": "menu", "act": "press" },
        { "at": 4.2, "chip": "mcu", "key": "menu", "act": "release" },
        { "at": 5,  "ir": { "high": 0, "low": 1088438015, "state": 1 } },
        { "at": 6,  "gpio": "GPIO2_1", "edges": [ { "ms": 0, "level": 0 }, { "ms": 4, "level": 1 },
                    { "ms": 9, "level": 0 }, { "ms": 180, "level": 1 } ] },
        { "at": 8,  "chip": "hdmi1", "source": { "width": 1280, "height": 720, "framerate": 50 } },
        { "at": 10, "chip": "mcu", "input": "hdmi2", "source": { "lock": 0 } },
        { "at": 10, "ai": 0, "stop": true },
        { "at": 11, "ai": 0, "stop": false },
        { "at": 12, "chip": "hdmi1", "source": {} }
      ]
    })";
    QVariantMap m = QJsonDocument::fromJson(text).toVariant().toMap();
    QVariantMap files;
    files["/vesk/config/edid.bin"] = QVariantMap{{"hex", defaultEdidHex()}};
    files["/vesk/config/nosignal.yuv"] = QVariantMap{{"builtin", "nosignal.yuv"}};
    files["/vesk/pictures/testsrc.jpg"] = QVariantMap{{"builtin", "testsrc.jpg"}};
    m["files"] = files;
    return m;
}

}  // namespace vsim
