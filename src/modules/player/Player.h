#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include "CMError.h"
#include "Playlist.h"

class CMValueNode;

/// Plays the playlist in time, though not in sound: what plays, where in the track, and what comes next. Shows it in
/// nodes; a timer runs only while it plays.
class Player : public QObject {
public:
    /// The nodes that show it; they outlive the player.
    struct Nodes {
        CMValueNode* state; ///< string: "playing", "paused" or "stopped".
        CMValueNode* position; ///< i64, milliseconds into the track.
        CMValueNode* track; ///< string, the current track's title.
    };

    Player(Playlist* playlist, const Nodes& nodes, QObject* parent = nullptr);

    static QStringList commands();
    static QStringList states();
    QString state() const;
    /// Carries out one of commands(): NotAnOption for another, Failed when there is nothing to play.
    CMError control(const QString& command);

    /// To be called after each change of the playlist: when the current track went away, its successor starts.
    void playlistChanged();

private:
    void play();
    void skip(int rows);
    void rest(const QString& state, qint64 positionMs);
    void tick();
    void startFrom(qint64 positionMs);
    void show(qint64 positionMs);
    qint64 now() const; ///< Milliseconds into the current track, perhaps beyond its end.

    Playlist* m_playlist;
    Nodes m_nodes;
    QTimer m_timer;
    QElapsedTimer m_sinceStart; ///< Valid while playing.
    qint64 m_startMs = 0; ///< Where in the track m_sinceStart began.
    int m_trackNumber = 0; ///< Playlist::trackNumber() as last shown.
};
