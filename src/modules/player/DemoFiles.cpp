#include "DemoFiles.h"

#include <QDir>
#include <QRegularExpression>
#include <QSaveFile>

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "SineWav.h"

namespace {

constexpr int toneSeconds = 5;

bool writeFile(const QString& name, const QByteArray& content)
{
    // Replaced by renaming: somebody may be reading the one of the last run.
    QSaveFile file(name);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.commit();
}

QByteArray aboutText()
{
    return QByteArrayLiteral("This device is a demonstration.\n"
                             "\n"
                             "It plays a playlist in silence: see player:player/state, player:player/track and\n"
                             "player:player/volume. What system:... shows is measured on this machine.\n");
}

} // namespace

bool DemoFiles::write(const QString& directory)
{
    const SineWav tone(toneSeconds);
    const QDir files(directory);
    return files.mkpath(QStringLiteral("."))
        && writeFile(files.filePath(QStringLiteral("tone.wav")), tone.bytes(0, int(tone.size())))
        && writeFile(files.filePath(QStringLiteral("about.txt")), aboutText());
}

void DemoFiles::offer(const QString& directory)
{
    const CMPath path = CMPath::fromEncoded(QStringLiteral("settings:webserver/readPathPrefix"));
    auto* prefix = CMRoot() ? dynamic_cast<CMValueNode*>(CMRoot()->tree()->node(path)) : nullptr;
    if (!prefix || !prefix->value().string().isEmpty())
        return;
    // The setting is a pattern; what needs no escaping in one stays readable.
    QString pattern = QRegularExpression::escape(directory + QLatin1Char('/'));
    pattern.replace(QLatin1String("\\/"), QLatin1String("/")).replace(QLatin1String("\\-"), QLatin1String("-"));
    prefix->override_(ZarkValue::fromString(pattern));
}
