#include "PlayerWorker.h"

#include "CMActivateNode.h"
#include "CMContainerNode.h"
#include "CMListNode.h"
#include "CMStreamNode.h"
#include "CMValueNode.h"
#include "DemoFiles.h"
#include "DemoTracks.h"

namespace {

constexpr int demoTracks = 500;

CMPath playerPath()
{
    return CMPath::fromEncoded(QStringLiteral("player:player"));
}

template <class Node> Node* describe(Node* node, const QString& title, const QString& description, const QString& icon)
{
    if (!node)
        return nullptr;
    node->setTitle(title);
    node->setDescription(description);
    node->setIcon(icon);
    return node;
}

CMValueNode* makeShown(CMNodes* nodes, const QString& name, const ZarkValue& initial, const QString& title)
{
    return describe(CMValueNode::create(nodes, playerPath().child(name), initial), title, {}, QStringLiteral("player"));
}

CMValueNode* makeSetting(CMNodes* nodes, const QString& name, const ZarkValue& initial, const QString& title)
{
    CMValueNode* node = CMValueNode::create(nodes, playerPath().child(name), initial, CMValueNode::Persistent);
    if (node)
        node->setModifiable(true);
    return describe(node, title, {}, name);
}

} // namespace

PlayerWorker::PlayerWorker(const QVariantHash& arguments) : CMNodesWorker(QStringLiteral("player"), arguments)
{
    if (!makeNodes())
        m_player.reset();
    offerFiles(arguments.value(QStringLiteral("state")).toString());
}

void PlayerWorker::offerFiles(const QString& stateDirectory)
{
    const QString files = stateDirectory + QStringLiteral("/files");
    if (!stateDirectory.isEmpty() && DemoFiles::write(files))
        DemoFiles::offer(files);
}

bool PlayerWorker::makeNodes()
{
    CMUINode* container = describe(CMContainerNode::create(nodes(), playerPath()), QStringLiteral("Player"),
        QStringLiteral("A media player that plays a playlist in silence."), QStringLiteral("player"));
    return container && makeSettings() && makeControl()
        && makeChange(QStringLiteral("playlistInsert"), QStringLiteral("Insert a track"),
            QStringLiteral("{\"index\": 0, \"title\": \"...\"}"), &Playlist::insert)
        && makeChange(QStringLiteral("playlistRemove"), QStringLiteral("Remove a track"),
            QStringLiteral("{\"index\": 0}"), &Playlist::remove)
        && makeChange(QStringLiteral("playlistMove"), QStringLiteral("Move a track"),
            QStringLiteral("{\"index\": 0, \"toIndex\": 4}; toIndex counts after the removal."), &Playlist::move)
        && makeAudio();
}

bool PlayerWorker::makeSettings()
{
    CMValueNode* volume =
        makeSetting(nodes(), QStringLiteral("volume"), ZarkValue::fromI32(30), QStringLiteral("Volume"));
    CMValueNode* mute =
        makeSetting(nodes(), QStringLiteral("mute"), ZarkValue::fromBool(false), QStringLiteral("Mute"));
    if (volume)
        volume->setEdit({ { QStringLiteral("minimum"), 0 }, { QStringLiteral("maximum"), 100 },
            { QStringLiteral("step"), 1 }, { QStringLiteral("unit"), QStringLiteral("%") } });
    return volume && mute;
}

bool PlayerWorker::makeControl()
{
    CMListNode* list = describe(CMListNode::create(nodes(), playerPath().child(QStringLiteral("playlist"))),
        QStringLiteral("Playlist"), QStringLiteral("Title, artist and duration in milliseconds."),
        QStringLiteral("list"));
    const Player::Nodes shown{ makeShown(nodes(), QStringLiteral("state"), ZarkValue::fromString({}),
                                   QStringLiteral("State")),
        makeShown(nodes(), QStringLiteral("position"), ZarkValue::fromI64(0), QStringLiteral("Position")),
        makeShown(nodes(), QStringLiteral("track"), ZarkValue::fromString({}), QStringLiteral("Track")) };
    CMActivateNode* command = describe(CMActivateNode::create(nodes(), playerPath().child(QStringLiteral("control"))),
        QStringLiteral("Control"), Player::commands().join(QStringLiteral(", ")), QStringLiteral("player"));
    if (!list || !shown.state || !shown.position || !shown.track || !command)
        return false;
    shown.state->setEdit({ { QStringLiteral("options"), Player::states() } });
    shown.position->setEdit({ { QStringLiteral("unit"), QStringLiteral("ms") } });
    m_playlist = std::make_unique<Playlist>(list);
    m_playlist->setTracks(makeDemoTracks(demoTracks));
    m_player = std::make_unique<Player>(m_playlist.get(), shown);
    command->setEdit({ { QStringLiteral("options"), Player::commands() } });
    command->setArgumentType(ZarkValueType::String);
    command->doSetInvoke([this](const CMSetDataRequest& request) { control(request); });
    return true;
}

bool PlayerWorker::makeChange(const QString& name, const QString& title, const QString& description, Change change)
{
    CMActivateNode* node =
        describe(CMActivateNode::create(nodes(), playerPath().child(name)), title, description, QStringLiteral("list"));
    if (node)
        node->doSetInvoke([this, change](const CMSetDataRequest& request) { changePlaylist(request, change); });
    return node != nullptr;
}

bool PlayerWorker::makeAudio()
{
    CMStreamNode* audio = describe(
        CMStreamNode::create(nodes(), playerPath().child(QStringLiteral("audio")), QStringLiteral("audio/wav")),
        QStringLiteral("Audio"), QStringLiteral("A steady tone for an hour."), QStringLiteral("audio"));
    if (audio)
        audio->setOpen([this] { return m_tones.open(); });
    return audio != nullptr;
}

void PlayerWorker::control(CMSetDataRequest request)
{
    const CMError error = m_player->control(request.value().string());
    if (error.isEmpty())
        request.finish(ZarkValue::fromString(m_player->state()).toVariant());
    else
        request.fail(error);
}

void PlayerWorker::changePlaylist(CMSetDataRequest request, Change change)
{
    const CMError error = (m_playlist.get()->*change)(request.json());
    if (!error.isEmpty()) {
        request.fail(error);
        return;
    }
    m_player->playlistChanged();
    request.finish(ZarkValue::fromI32(m_playlist->rowsCount()).toVariant());
}

extern "C" Q_DECL_EXPORT CMNodesWorker* worker_create(const QVariantHash& arguments)
{
    auto worker = std::make_unique<PlayerWorker>(arguments);
    return worker->isComplete() ? worker.release() : nullptr;
}
