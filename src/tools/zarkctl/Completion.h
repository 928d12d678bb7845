#pragma once

#include <QByteArrayList>
#include <QStringList>

/// What the last of `words` may become, as the shells' scripts ask it: commands, options, their values, and paths from
/// the device, whose containers end in "/". A line "<files>" asks the shell for names of files. Says nothing of errors:
/// who types wants no message.
QByteArrayList completionsOf(const QStringList& words);
