#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

#include <exception>

#include "Commands.h"
#include "Progress.h"
#include "Session.h"

namespace {

const qint64 ReadBytes = 1024 * 1024;

/// Reads the file once for its sum, piece by piece.
UploadFile openImage(const QString& name, bool shown)
{
    QFile file(name);
    const bool isOther = QFileInfo::exists(name) && !QFileInfo(name).isFile();
    if (isOther || !file.open(QIODevice::ReadOnly))
        throw Failure{ ExitUsage,
            name + QStringLiteral(": ") + (isOther ? QStringLiteral("no regular file") : file.errorString()) };
    if (file.size() == 0)
        throw Failure{ ExitUsage, name + QStringLiteral(": is empty") };
    QCryptographicHash sum(QCryptographicHash::Sha256);
    Progress progress(QStringLiteral("reading"), shown);
    while (!file.atEnd()) {
        const QByteArray piece = file.read(ReadBytes);
        if (piece.isEmpty())
            throw Failure{ ExitFailed, name + QStringLiteral(": ") + file.errorString() };
        sum.addData(piece);
        progress.show(file.pos(), file.size());
    }
    return { QFile::encodeName(name), sum.result().toHex() };
}

} // namespace

ExitStatus runUpload(Session& session)
{
    const UploadFile image = openImage(session.arguments().first(), session.isAlone());
    QVariantHash answer;
    {
        Progress progress(QStringLiteral("sending"), session.isAlone());
        answer = session.api->upload(image, [&progress](qint64 done, qint64 total) { progress.show(done, total); });
    }
    const QVariant bytes = answer.value(QStringLiteral("bytes"));
    const QByteArray sum = answer.value(QStringLiteral("sha256")).toByteArray();
    if (sum != image.sha256)
        throw Failure{ ExitFailed,
            QStringLiteral("the device has stored something else: its SHA-256 is not the file's") };
    session.report.records.append(
        { { QStringLiteral("bytes"), bytes }, { QStringLiteral("sha256"), QString::fromLatin1(sum) } });
    session.report.lines.append(bytes.toByteArray() + " bytes, SHA-256 " + sum);
    return ExitOk;
}

ExitStatus runStream(Session& session)
{
    session.report.bare = true;
    std::exception_ptr failed;
    session.api->http().setGivingUp(&Output::isClosed);
    // No exception crosses libcurl: it is kept until the transfer has ended.
    const auto write = [&session, &failed](const char* data, size_t size) {
        try {
            session.output->write(QByteArray::fromRawData(data, int(size)));
        } catch (const Failure&) {
            failed = std::current_exception();
        }
        return !failed;
    };
    try {
        session.api->stream(session.arguments().first(), write);
        if (failed)
            std::rethrow_exception(failed);
    } catch (const Failure& failure) {
        throw Output::isClosed() ? Failure{ ExitFailed, QString() } : failure; // The reader has gone, as readers do.
    }
    return ExitOk;
}
