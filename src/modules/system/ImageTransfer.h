#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <thread>

/// Copies an image from a pipe into a directory, on a thread of its own: a disk that is slow delays nobody else.
///
/// The directory holds at most one image that counts, in "current/", with what is known of it in "current/about.json".
/// A new one takes its place in one step, when it is whole, has the sum it must have, and is on disk.
class ImageTransfer {
public:
    struct Outcome {
        QString error; ///< Empty: the image is kept.
        qint64 bytes = 0;
        QByteArray sha256;
    };
    /// Called once, on the transfer's thread; by the constructor when no thread is to be had.
    using Done = std::function<void(const Outcome&)>;

    /// `readEnd` becomes this object's.
    ImageTransfer(const QString& directory, const QString& fileName, int readEnd, const Done& done);
    /// Cancels what is under way and waits for the thread.
    ~ImageTransfer();
    ImageTransfer(const ImageTransfer&) = delete;
    ImageTransfer& operator=(const ImageTransfer&) = delete;

    /// The writer is about to close the pipe, having written all. An empty sum is not compared. Call it before that.
    void markWhole(const QByteArray& sha256);
    qint64 receivedBytes() const { return m_received; }

    /// What was kept before; no error and no bytes when there is none. Removes what an interrupted transfer left.
    static Outcome kept(const QString& directory, QString* fileName);

private:
    void run();
    Outcome receive();
    QString copy(int file, Outcome* outcome);
    QString keep(int file, const Outcome& outcome) const;
    int readSome(char* buffer, size_t size) const;
    void flush(int file, qint64 written) const;
    void closeReadEnd();

    QString m_directory;
    QString m_fileName;
    int m_readEnd;
    int m_cancelled; ///< An eventfd.
    Done m_done;
    QByteArray m_expectedSum; ///< Set before m_whole.
    std::atomic<bool> m_whole{ false };
    std::atomic<qint64> m_received{ 0 };
    std::thread m_thread;
};
