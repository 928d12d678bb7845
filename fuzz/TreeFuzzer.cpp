#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

#include "CMNodes.h"
#include "CMRoot.h"
#include "CMTreeFile.h"
#include "Expect.h"

/// A tree file is taken, or refused at a line that it has.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const int fd = memfd_create("tree", MFD_CLOEXEC);
    static const QString file = QStringLiteral("/proc/self/fd/%1").arg(fd);
    expect(ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));

    CMRootWorker root;
    CMNodes nodes(root.tree());
    QString error;
    const bool isLoaded = CMTreeFile::load(file, &nodes, &error);
    expect(isLoaded == error.isEmpty());
    if (isLoaded)
        return 0;
    const int line = error.mid(file.size() + 1).section(QLatin1Char(':'), 0, 0).toInt();
    const auto lines = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size)).count('\n');
    expect(error.startsWith(file + QLatin1Char(':')) && line >= 1 && line <= lines + 1);
    return 0;
}
