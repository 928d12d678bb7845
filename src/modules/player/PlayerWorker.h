#pragma once

#include <functional>
#include <memory>

#include "CMNodesWorker.h"
#include "Player.h"
#include "Playlist.h"
#include "ToneStreams.h"

class CMSetDataRequest;

/// The demo device: a media player under "player:player/…" with volume, play state, a playlist that can be changed, and
/// an audio stream.
class PlayerWorker : public CMNodesWorker {
    Q_OBJECT
public:
    explicit PlayerWorker(const QVariantHash& arguments);

    /// False when some path was taken, by the tree file perhaps, and the worker is of no use.
    bool isComplete() const { return m_player != nullptr; }

private:
    using Change = CMError (Playlist::*)(const QVariant&);

    bool makeNodes(); ///< False when a path was taken.
    bool makeSettings();
    bool makeControl();
    bool makeChange(const QString& name, const QString& title, const QString& description, Change change);
    bool makeAudio();
    void offerFiles(const QString& stateDirectory); ///< Without them when there is no place for them.
    void control(CMSetDataRequest request);
    void changePlaylist(CMSetDataRequest request, Change change);

    // Gone before the nodes, which belong to the base class.
    std::unique_ptr<Playlist> m_playlist;
    std::unique_ptr<Player> m_player;
    ToneStreams m_tones;
};
