// Finds a USB sound card by what stays the same from boot to boot, its USB
// bus, its USB id or the port it sits in, and turns it into an ALSA device
// name "hw:N". The card number itself changes with the order of plugging.
// Shared by the capture and the playback node, which keep the number in
// their own `card`.
#pragma once

#include <QMap>
#include <QString>
#include <QVariant>
#include <cstdint>

namespace AlsaResolver {

// Cards are numbered from 0 up without gaps; the walks look at no more.
constexpr int kCards = 10;

// True when `card` is known, after looking it up by "bus", "id" and "lnk"
// of `data` (in that order, so the later key wins) and, failing those, by
// the number in "path". Writes the found device name to data["path"].
bool findAlsaDev(QMap<QString, QVariant>& data, int32_t& card);

// Each starts from `path` as its answer and `card` = -1, and stops at the
// first card number that has no entry.
QString busToPath(const QString& path, const QString& bus, int32_t& card);
// `id` may list several ids: a card matches when its id is part of it.
QString idToPath(const QString& path, const QString& id, int32_t& card);
// `lnk`: USB ports separated by "|"; the last card that sits in one wins.
QString lkToPath(const QString& path, const QString& lnk, int32_t& card);

// The card's capture format from the text of its "stream0" entry: the
// first format of the capture side gives data["channels"] (one digit) and
// data["samplerate"] (five digits). Without a capture side the whole text
// is read.
void captureFormat(const QByteArray& stream0, QMap<QString, QVariant>& data);

// A board names its sound cards: the entry of data["interface"] in the
// board's "interfaceA" gives "alsa" as the device name and overwrites or
// adds every other key.
void applyInterface(QMap<QString, QVariant>& data);

}  // namespace AlsaResolver
