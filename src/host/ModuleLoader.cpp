#include "ModuleLoader.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <dlfcn.h>

QString ModuleLoader::fileOf(const QString& module) const
{
    if (module.contains(QLatin1Char('/')) || module.endsWith(QLatin1String(".so")))
        return QFileInfo(module).absoluteFilePath();
    return QDir(m_libraryDirectory).absoluteFilePath(QStringLiteral("libzark_%1.so").arg(module));
}

CMWorkerCreate ModuleLoader::load(const QString& module, QString* error) const
{
    const QString file = fileOf(module);
    if (!QFileInfo(file).isFile()) {
        *error = QStringLiteral("module '%1': no such file: %2").arg(module, file);
        return nullptr;
    }
    void* library = dlopen(QFile::encodeName(file).constData(), RTLD_LAZY);
    void* symbol = library ? dlsym(library, "worker_create") : nullptr;
    if (!symbol) {
        const char* reason = dlerror();
        // The reason names the file.
        *error = QStringLiteral("module '%1': %2").arg(module, reason ? QString::fromLocal8Bit(reason) : file);
        return nullptr;
    }
    return reinterpret_cast<CMWorkerCreate>(symbol);
}
