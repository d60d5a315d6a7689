// veskhost's answer to arguments it cannot take: the reason and the verb's
// part of the usage on standard error (the whole usage when `verb` is null).
#pragma once
#include <QString>

// Returns 2, the exit status for bad arguments.
int veskUsageError(const char* verb, const QString& why);
