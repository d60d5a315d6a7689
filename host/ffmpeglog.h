// FFmpeg's log lines for the programs built on the reference host. A device
// that fails at every read makes FFmpeg complain at the rate of the read
// loop (a pulled sound card: some 100,000 lines a second until the node
// notices); a person, or a log kept for months, needs each complaint once a
// second with a count.
#pragma once

#include <QByteArray>

namespace veskhost {

// Installs the log callback: lines above FFmpeg's current level are dropped,
// the first of each distinct line within a second goes to `sink`, and the
// repeats are counted and handed over as one line "    (N more times) LINE"
// when the second ends (at the next line that comes). `sink` may be called
// from any thread, one call at a time.
void installFfmpegLog(void (*sink)(const QByteArray& line));

}  // namespace veskhost
