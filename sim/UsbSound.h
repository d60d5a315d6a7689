// USB sound cards of the virtual board, reached through the real ALSA
// library. While the board is active ALSA_CONFIG_PATH names a configuration
// of the board's own, in which "hw:N,M" and "plughw:N,M" open a PCM plug-in
// of this file: it answers only for a card that is plugged at number N,
// takes only the formats, rates and channel counts the card lists, and runs
// at the card's sample clock (capture delivers frames as they are due,
// playback consumes them as they are due and underruns when it runs dry).
// A card that is unplugged fails every call of a handle still open.
//
// Beside ALSA the card shows in the board's files as the kernel shows it:
// "/proc/asound/cardN/usbbus", "usbid", "stream0", and the link
// "/sys/class/sound/cardN" into the device tree of its USB port.
//
// Scenario steps:
//   {"usbsound": NAME, "plug": true, "card": N, "usbbus": "001/004",
//    "usbid": "0d8c:0014", "port": "1-1.2",
//    "capture": {"rate": HZ | "rates": [HZ...], "channels": C,
//                "tone": HZ, "level": 0..1 | "file": PATH (raw S16_LE),
//                "formats": ["S16_LE", ...]},
//    "playback": {"formats": [...], "rates": [...], "channels": [...]},
//    "stream0": TEXT (instead of the one made from the above),
//    "link": TARGET (instead of the one made from "port")}
//   {"usbsound": NAME, "plug": false}
// A card without "capture" (or "playback") has no such direction; without
// "port" it sits in port 1-(N+1). A tone
// fills every channel with the same sine; a file is played once, then
// silence. What a card plays is kept in a file, up to 64 MiB.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVariantMap>
#include <cstdint>

namespace vsim {

class UsbSound {
public:
    static UsbSound& instance();

    struct Card {
        QString name;
        int number = -1;
        bool plugged = false;
        int captureOpens = 0;   // successful opens for capture, ever
        int playbackOpens = 0;  // the same for playback
        uint64_t captured = 0;  // frames read by the library
        // The last playback set-up: ALSA format name, channels, rate, sizes.
        QString playFormat;
        int playChannels = 0;
        int playRate = 0;
        long periodFrames = 0;
        long bufferFrames = 0;
        // CLOCK_MONOTONIC time at which the frames written so far have all
        // been played (0 before the first start).
        int64_t dryAtNs = 0;
        // Every byte written for playback, in the device's format, goes to
        // this file (on this machine, under the board's root); it is
        // emptied when the card is first plugged on a fresh board.
        QString playedFile;
    };
    // A default record for an unknown name.
    Card card(const QString& name) const;

    bool applyStep(const QVariantMap& step, QString* error, bool* handled);
    // A fresh board: every card gone, the ALSA configuration under `root`.
    void install(const QString& root);

    struct Impl;

private:
    UsbSound();
    Impl* d;
};

}  // namespace vsim
