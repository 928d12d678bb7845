#include "ImageTransfer.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>
#include <system_error>

#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ZarkJson.h"

namespace {

constexpr int BufferBytes = 256 * 1024;
constexpr qint64 FlushBytes = 8 * 1024 * 1024;

QString incomingIn(const QString& directory)
{
    return directory + QStringLiteral("/incoming");
}

QString currentIn(const QString& directory)
{
    return directory + QStringLiteral("/current");
}

QString cannotStore(int error = errno)
{
    return QStringLiteral("The image cannot be stored: %1").arg(QString::fromLocal8Bit(strerror(error)));
}

bool writeAll(int file, const char* data, ssize_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(file, data, static_cast<size_t>(length));
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            data += written;
            length -= written;
        }
    }
    return true;
}

int openFile(const QString& name, int flags)
{
    return ::open(QFile::encodeName(name).constData(), flags | O_CLOEXEC, 0600);
}

bool syncDirectory(const QString& name)
{
    const int directory = openFile(name, O_RDONLY | O_DIRECTORY);
    const bool synced = directory >= 0 && fsync(directory) == 0;
    if (directory >= 0)
        close(directory);
    return synced;
}

bool writeAbout(const QString& name, const QByteArray& text)
{
    const int file = openFile(name, O_WRONLY | O_CREAT | O_TRUNC);
    const bool written = file >= 0 && writeAll(file, text.constData(), text.size()) && fsync(file) == 0;
    if (file >= 0)
        close(file);
    return written;
}

} // namespace

ImageTransfer::ImageTransfer(const QString& directory, const QString& fileName, int readEnd, const Done& done)
    : m_directory(directory), m_fileName(fileName), m_readEnd(readEnd), m_cancelled(eventfd(0, EFD_CLOEXEC)),
      m_done(done)
{
    int failure = m_cancelled < 0 ? errno : 0;
    try {
        if (failure == 0)
            m_thread = std::thread([this] { run(); });
    } catch (const std::system_error& error) {
        failure = error.code().value();
    }
    if (failure == 0)
        return;
    closeReadEnd();
    m_done({ cannotStore(failure), 0, {} });
}

ImageTransfer::~ImageTransfer()
{
    if (m_cancelled >= 0)
        eventfd_write(m_cancelled, 1);
    if (m_thread.joinable())
        m_thread.join();
    closeReadEnd();
    if (m_cancelled >= 0)
        close(m_cancelled);
}

void ImageTransfer::closeReadEnd()
{
    if (m_readEnd >= 0)
        close(m_readEnd);
    m_readEnd = -1;
}

void ImageTransfer::markWhole(const QByteArray& sha256)
{
    m_expectedSum = sha256;
    m_whole = true;
}

void ImageTransfer::run()
{
    const Outcome outcome = receive();
    // At once: whoever still writes learns from it that nobody reads any more.
    closeReadEnd();
    QDir(incomingIn(m_directory)).removeRecursively();
    m_done(outcome);
}

ImageTransfer::Outcome ImageTransfer::receive()
{
    Outcome outcome;
    const QString incoming = incomingIn(m_directory);
    QDir(incoming).removeRecursively();
    if (!QDir().mkpath(incoming)) {
        outcome.error = cannotStore();
        return outcome;
    }
    const int file = openFile(incoming + QStringLiteral("/image"), O_WRONLY | O_CREAT | O_EXCL);
    if (file < 0) {
        outcome.error = cannotStore();
        return outcome;
    }
    outcome.error = copy(file, &outcome);
    if (outcome.error.isEmpty())
        outcome.error = keep(file, outcome);
    close(file);
    return outcome;
}

QString ImageTransfer::copy(int file, Outcome* outcome)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> hash(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!hash || EVP_DigestInit_ex(hash.get(), EVP_sha256(), nullptr) != 1)
        return QStringLiteral("SHA-256 is not available");
    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[BufferBytes]);
    if (!buffer)
        return cannotStore(ENOMEM);
    int length = readSome(buffer.get(), BufferBytes);
    for (; length > 0; length = readSome(buffer.get(), BufferBytes)) {
        EVP_DigestUpdate(hash.get(), buffer.get(), static_cast<size_t>(length));
        if (!writeAll(file, buffer.get(), length))
            return cannotStore();
        m_received += length;
        flush(file, length);
    }
    // The end of the pipe alone says nothing: it looks the same when the writer has gone in the middle.
    if (length < 0 || !m_whole)
        return QStringLiteral("The image is incomplete");
    outcome->bytes = m_received;
    outcome->sha256.resize(EVP_MD_size(EVP_sha256()));
    EVP_DigestFinal_ex(hash.get(), reinterpret_cast<unsigned char*>(outcome->sha256.data()), nullptr);
    if (!m_expectedSum.isEmpty() && m_expectedSum != outcome->sha256)
        return QStringLiteral("The image does not have the SHA-256 sum that was sent with it");
    return {};
}

// So that little is left for the end, when the client waits, and little memory is taken by what is not on disk yet.
void ImageTransfer::flush(int file, qint64 written) const
{
    if (m_received / FlushBytes != (m_received - written) / FlushBytes)
        sync_file_range(file, 0, 0, SYNC_FILE_RANGE_WRITE);
}

/// 0 at the end, -1 when it was cancelled.
int ImageTransfer::readSome(char* buffer, size_t size) const
{
    for (;;) {
        pollfd polled[] = { { m_readEnd, POLLIN, 0 }, { m_cancelled, POLLIN, 0 } };
        if (poll(polled, 2, -1) < 0 && errno != EINTR)
            return -1;
        if (polled[1].revents)
            return -1;
        const ssize_t length = polled[0].revents ? ::read(m_readEnd, buffer, size) : -1;
        if (length >= 0)
            return static_cast<int>(length);
        if (polled[0].revents && errno != EINTR && errno != EAGAIN)
            return -1;
    }
}

// All is on disk before it counts, and then it counts in one step: "current" is either the old image or the new one.
QString ImageTransfer::keep(int file, const Outcome& outcome) const
{
    const QString incoming = incomingIn(m_directory);
    const QByteArray about = ZarkJson::serialize(
        QVariantHash{ { QStringLiteral("name"), m_fileName }, { QStringLiteral("size"), outcome.bytes },
            { QStringLiteral("sha256"), QString::fromLatin1(outcome.sha256.toHex()) } });
    const QByteArray from = QFile::encodeName(incoming);
    const QByteArray to = QFile::encodeName(currentIn(m_directory));
    const bool stored = fsync(file) == 0 && writeAbout(incoming + QStringLiteral("/about.json"), about)
        && syncDirectory(incoming)
        && (renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_EXCHANGE) == 0
            || (errno == ENOENT && rename(from.constData(), to.constData()) == 0))
        && syncDirectory(m_directory);
    return stored ? QString() : cannotStore();
}

ImageTransfer::Outcome ImageTransfer::kept(const QString& directory, QString* fileName)
{
    QDir(incomingIn(directory)).removeRecursively();
    QFile file(currentIn(directory) + QStringLiteral("/about.json"));
    Outcome outcome;
    ZarkError error;
    if (!file.open(QIODevice::ReadOnly))
        return outcome;
    const QVariantHash about = ZarkJson::parse(file.readAll(), &error).toHash();
    *fileName = about.value(QStringLiteral("name")).toString();
    outcome.bytes = about.value(QStringLiteral("size")).toLongLong();
    outcome.sha256 = QByteArray::fromHex(about.value(QStringLiteral("sha256")).toString().toLatin1());
    return outcome;
}
