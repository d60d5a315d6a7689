// `veskhost probe URL [--seconds N] [--json] [--set KEY=VALUE ...]`: opens a
// stream with the node that serves its scheme, counts what it delivers for
// a while and reports like ffprobe would for this appliance.
#pragma once

#include <QString>
#include <QStringList>

// The node class that opens `url`.
QString veskProbeClassFor(const QString& url);

// `args` are the arguments after "probe". Needs a QCoreApplication (makes
// one if there is none). Returns the exit code: 0 when "ready" came and
// packets flowed, 1 when not, 2 on bad arguments.
int veskProbe(const QStringList& args);
