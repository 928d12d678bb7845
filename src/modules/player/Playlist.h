#pragma once

#include <QVariantHash>
#include <QVector>

#include "CMError.h"

class CMListNode;

/// The rows of the playlist, and which of them is the current one. The current track stays current while rows come, go
/// and move around it; when its own row goes, the row that takes its place follows (the first one at the end).
class Playlist {
public:
    explicit Playlist(CMListNode* node) : m_node(node) { }

    /// One row: a title, an artist as description, and the duration as value.
    static QVariantHash makeTrack(const QString& title, const QString& artist, qint64 durationMs);
    /// Replaces everything; the first track is the current one then. Durations are above 0.
    void setTracks(const QVector<QVariantHash>& tracks);

    int rowsCount() const;
    int current() const { return m_current; } ///< -1 when the list is empty.
    QString currentTitle() const; ///< Empty when the list is.
    qint64 currentDuration() const; ///< In milliseconds; 0 when the list is empty.
    void step(int rows); ///< Makes another row the current one, around both ends.
    /// Another number whenever another track starts; the same one while the current track merely moves.
    int trackNumber() const { return m_trackNumber; }

    // Commands: each takes its JSON argument and fails with a sentence for people.
    CMError insert(const QVariant& json); ///< {"index", "title"}; index up to rowsCount() inclusive.
    CMError remove(const QVariant& json); ///< {"index"}
    CMError move(const QVariant& json); ///< {"index", "toIndex"}; toIndex counts after the removal.

private:
    CMError checkIndex(const char* key, int index, int count) const;

    CMListNode* m_node;
    int m_current = -1;
    int m_trackNumber = 0;
};
