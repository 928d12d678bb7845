#include "Playlist.h"

#include "CMListNode.h"
#include "PlaylistCommand.h"
#include "ZarkRoles.h"
#include "ZarkValue.h"

namespace {

constexpr int maximumTracks = 10000;
constexpr qint64 insertedDurationMs = 180000;

} // namespace

QVariantHash Playlist::makeTrack(const QString& title, const QString& artist, qint64 durationMs)
{
    return { { ZarkRoles::Title(), title }, { ZarkRoles::Description(), artist },
        { ZarkRoles::Type(), QStringLiteral("value") },
        { ZarkRoles::Value(), ZarkValue::fromI64(durationMs).toVariant() },
        { ZarkRoles::Icon(), QStringLiteral("track") } };
}

void Playlist::setTracks(const QVector<QVariantHash>& tracks)
{
    m_node->setRows(tracks);
    m_current = tracks.isEmpty() ? -1 : 0;
    ++m_trackNumber;
}

int Playlist::rowsCount() const
{
    return m_node->rowsCount();
}

QString Playlist::currentTitle() const
{
    return m_node->row(m_current).value(ZarkRoles::Title()).toString();
}

qint64 Playlist::currentDuration() const
{
    return ZarkValue(m_node->row(m_current).value(ZarkRoles::Value())).i64();
}

void Playlist::step(int rows)
{
    if (rowsCount() == 0)
        return;
    m_current = (m_current + rows + rowsCount()) % rowsCount();
    ++m_trackNumber;
}

CMError Playlist::checkIndex(const char* key, int index, int count) const
{
    if (index >= 0 && index < count)
        return {};
    return CMError(CMError::OutOfRange,
        QStringLiteral("\"%1\" is out of range: the playlist has %2 rows.").arg(QLatin1String(key)).arg(rowsCount()));
}

CMError Playlist::insert(const QVariant& json)
{
    CMError error;
    const PlaylistCommand command =
        PlaylistCommand::fromJson(json, { QStringLiteral("index"), QStringLiteral("title") }, &error);
    if (error.isEmpty() && rowsCount() >= maximumTracks)
        error = CMError(CMError::Failed, QStringLiteral("The playlist is full."));
    if (error.isEmpty())
        error = checkIndex("index", command.index, rowsCount() + 1);
    if (!error.isEmpty())
        return error;
    m_node->insertRow(command.index, makeTrack(command.title, QStringLiteral("Guest"), insertedDurationMs));
    if (m_current < 0)
        ++m_trackNumber;
    if (m_current < 0 || command.index <= m_current)
        ++m_current;
    return {};
}

CMError Playlist::remove(const QVariant& json)
{
    CMError error;
    const PlaylistCommand command = PlaylistCommand::fromJson(json, { QStringLiteral("index") }, &error);
    if (error.isEmpty())
        error = checkIndex("index", command.index, rowsCount());
    if (!error.isEmpty())
        return error;
    m_node->removeRow(command.index);
    if (command.index == m_current)
        ++m_trackNumber;
    if (command.index < m_current)
        --m_current;
    else if (m_current == rowsCount())
        m_current = rowsCount() > 0 ? 0 : -1;
    return {};
}

CMError Playlist::move(const QVariant& json)
{
    CMError error;
    const PlaylistCommand command =
        PlaylistCommand::fromJson(json, { QStringLiteral("index"), QStringLiteral("toIndex") }, &error);
    if (error.isEmpty())
        error = checkIndex("index", command.index, rowsCount());
    if (error.isEmpty())
        error = checkIndex("toIndex", command.toIndex, rowsCount());
    if (!error.isEmpty())
        return error;
    m_node->moveRow(command.index, command.toIndex);
    if (m_current == command.index) {
        m_current = command.toIndex;
        return {};
    }
    // As if the row left and came back: rows behind close up, rows behind its new place make room.
    if (command.index < m_current)
        --m_current;
    if (command.toIndex <= m_current)
        ++m_current;
    return {};
}
