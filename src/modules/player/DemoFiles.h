#pragma once

#include <QString>

/// Files that the demo device offers under "/file/stream/": a few seconds of a tone, and a text about the device. Made
/// anew with each start.
namespace DemoFiles {

/// Writes them into `directory`, which is made if it is missing. False when one could not be written.
bool write(const QString& directory);
/// Names the directory as the one to be read from, unless the device's settings name another.
void offer(const QString& directory);

} // namespace DemoFiles
