// `veskhost inspect [CLASS] [--json]`: what a person needs before writing a
// graph, read from the library itself: a node class's `data` keys with
// their types and defaults, what `invoke` reaches, the events it sends, and
// shareName/shareDepth. Without CLASS, every class in one line each;
// --json gives the same as one JSON object on one line.
#pragma once

#include <QStringList>

// `args` are the arguments after "inspect". Returns the exit code: 0, or 2
// on bad arguments or an unknown class.
int veskInspect(const QStringList& args);
