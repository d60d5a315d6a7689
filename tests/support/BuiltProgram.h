// Starting a program of this build (veskhost) from a test. In a cross build
// it is a target binary like the test itself, so it is started through the
// same user-mode emulator that runs the tests.
#pragma once

#include <QProcess>
#include <QStringList>

namespace vesktest {

inline void startBuilt(QProcess& p, const QString& program, const QStringList& args)
{
#ifdef VESK_TEST_EMULATOR
    QStringList emulator = QString(VESK_TEST_EMULATOR).split(' ', Qt::SkipEmptyParts);
    const QString first = emulator.takeFirst();
    p.start(first, emulator + QStringList{program} + args);
#else
    p.start(program, args);
#endif
}

}  // namespace vesktest
