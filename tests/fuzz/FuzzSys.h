// The OS seam of the fuzz targets: a board held in memory. Files, symbolic
// links and devices exist only when a target puts them there; every other
// path fails to open, as on a board without that device. Sleeps return at
// once and the clock moves only when asked, so that runs do not depend on
// time. reset() before and after each input leaves nothing of it behind (and
// the fuzzer, which counts allocations per input, sees none outlive it).
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzzsys {

// One answer of a device's read: bytes (cut to what the reader asks for) or,
// with `err` set, -1 and that errno. An empty block is the end of the file.
struct Read {
    QByteArray bytes;
    int err = 0;
};

void reset();

// A file that open/read and exists see. Files read through QFile (by their
// vsys::path) need `disk` too: they are then written under the run's own
// directory, and removed again by reset().
void putFile(const QString& boardPath, const QByteArray& bytes, bool disk = false);
// A symbolic link: exists() and readlink() see it.
void putLink(const QString& boardPath, const QByteArray& target);
// A device: each open gets a descriptor whose reads answer `reads` in turn,
// then end of file. Writes are taken and dropped; ioctl answers 0.
void putDevice(const QString& boardPath, const QList<Read>& reads = {});
// The event descriptors that a GPIO chip hands out, one per line request,
// in turn; a request beyond them fails.
void queueLineEvents(const QList<QList<Read>>& lines);

// What was written to devices, in order: the device's path, the bus address
// last set on that descriptor (I2C_SLAVE_FORCE, else 0) and the bytes.
struct Write {
    QString path;
    unsigned long address = 0;
    std::string bytes;  // short writes stay inside the string
};
const std::vector<Write>& writes();

// Descriptors open now: a target checks that nothing is left open.
int openCount();

// CLOCK_REALTIME and CLOCK_MONOTONIC as the library sees them.
extern int64_t clockUs;

}  // namespace fuzzsys

namespace fuzzplatform {
// Every buffer block the platform handed out goes back.
void reset();
}  // namespace fuzzplatform
