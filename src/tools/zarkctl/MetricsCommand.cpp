#include <QMap>
#include <QRegularExpression>
#include <QSaveFile>

#include "Commands.h"
#include "Metrics.h"
#include "Nodes.h"
#include "Session.h"
#include "ValueText.h"
#include "ZarkJson.h"

namespace {

bool isNumeric(const QString& type)
{
    return type == QLatin1String("i32") || type == QLatin1String("i64") || type == QLatin1String("double")
        || type == QLatin1String("bool");
}

QString unitOf(const NodeEntry& node)
{
    return node.roles.value(QStringLiteral("edit")).toHash().value(QStringLiteral("unit")).toString();
}

/// A metric's name has letters, digits and "_" alone; the label "path" tells the whole path.
QString metricOf(const QString& path)
{
    static const QRegularExpression others(QStringLiteral("[^a-zA-Z0-9]+"));
    return QStringLiteral("zark_") + QString(path).replace(others, QStringLiteral("_"));
}

QByteArray escaped(const QString& text)
{
    QByteArray bytes = text.toUtf8();
    return bytes.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

} // namespace

/// Each numeric node is a record: the metric's name, path, title, unit and number. metricsText() makes the text of all
/// devices together, because a metric's lines must stand together.
ExitStatus runMetrics(Session& session)
{
    Nodes nodes(session.api, { QStringLiteral("value"), QStringLiteral("title"), QStringLiteral("edit") });
    const QStringList paths = session.arguments().isEmpty() ? QStringList{ QStringLiteral(":") } : session.arguments();
    for (const QString& path : nodes.expanded(paths)) {
        nodes.walk(path, -1, [&session](const NodeEntry& node, const QList<bool>&) {
            const QVariantHash value = node.roles.value(QStringLiteral("value")).toHash();
            if (!isNumeric(value.value(QStringLiteral("type")).toString()) || node.isSecret())
                return;
            session.report.records.append(
                { { QStringLiteral("metric"), metricOf(node.path) }, { QStringLiteral("path"), node.path },
                    { QStringLiteral("title"), node.roles.value(QStringLiteral("title")) },
                    { QStringLiteral("unit"), unitOf(node) },
                    { QStringLiteral("number"), value.value(QStringLiteral("value")) } });
        });
    }
    return ExitOk;
}

QByteArray metricsText(const QList<Report>& reports, const QStringList& unreachable)
{
    QMap<QString, QByteArray> samples;
    QMap<QString, QString> helps;
    QByteArray up = "# HELP zark_up Whether the device answered.\n# TYPE zark_up gauge\n";
    for (const Report& report : reports) {
        const QByteArray device = report.device.isEmpty() ? QByteArray() : "device=\"" + escaped(report.device) + '"';
        const bool answered = !unreachable.contains(report.device);
        up += "zark_up" + (device.isEmpty() ? device : '{' + device + '}') + (answered ? " 1\n" : " 0\n");
        for (const Record& record : report.records) {
            const QString metric = record.at(0).second.toString();
            const QVariant number = record.at(4).second;
            const QByteArray text = number.userType() == QMetaType::Bool ? QByteArray(number.toBool() ? "1" : "0")
                                                                         : ZarkJson::serialize(number);
            QByteArray labels = "path=\"" + escaped(record.at(1).second.toString()) + '"';
            if (!record.at(3).second.toString().isEmpty())
                labels += ",unit=\"" + escaped(record.at(3).second.toString()) + '"';
            if (!device.isEmpty())
                labels += ',' + device;
            samples[metric] += metric.toLatin1() + '{' + labels + "} " + text + '\n';
            helps.insert(metric, record.at(2).second.toString());
        }
    }
    QByteArray text = up;
    for (auto it = samples.cbegin(); it != samples.cend(); ++it) {
        const QByteArray name = it.key().toLatin1();
        text += "# HELP " + name + ' ' + escaped(helps.value(it.key())) + "\n# TYPE " + name + " gauge\n" + it.value();
    }
    return text + "# EOF\n";
}

void writeMetrics(const QByteArray& text, const QString& fileName)
{
    QSaveFile file(fileName);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit())
        throw Failure{ ExitFailed, fileName + QStringLiteral(": ") + file.errorString() };
}
