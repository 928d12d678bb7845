#include "Player.h"

#include "CMValueNode.h"

namespace {

constexpr int tickMs = 1000;
const QLatin1String playing("playing");
const QLatin1String paused("paused");
const QLatin1String stopped("stopped");

} // namespace

Player::Player(Playlist* playlist, const Nodes& nodes, QObject* parent)
    : QObject(parent), m_playlist(playlist), m_nodes(nodes)
{
    m_timer.setInterval(tickMs);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &Player::tick);
    m_trackNumber = m_playlist->trackNumber();
    rest(stopped, 0);
}

QStringList Player::commands()
{
    return { QStringLiteral("play"), QStringLiteral("pause"), QStringLiteral("stop"), QStringLiteral("next"),
        QStringLiteral("previous") };
}

QStringList Player::states()
{
    return { playing, paused, stopped };
}

QString Player::state() const
{
    return m_nodes.state->value().string();
}

CMError Player::control(const QString& command)
{
    const int number = commands().indexOf(command);
    if (number < 0) {
        return CMError(CMError::NotAnOption,
            QStringLiteral("No such command; there are %1.").arg(commands().join(QStringLiteral(", "))));
    }
    if (m_playlist->rowsCount() == 0 && command != QLatin1String("stop"))
        return CMError(CMError::Failed, QStringLiteral("The playlist is empty."));
    if (command == QLatin1String("play"))
        play();
    else if (command == QLatin1String("pause"))
        rest(state() == stopped ? stopped : paused, now());
    else if (command == QLatin1String("stop"))
        rest(stopped, 0);
    else
        skip(command == QLatin1String("next") ? 1 : -1);
    return {};
}

void Player::skip(int rows)
{
    m_playlist->step(rows);
    playlistChanged();
}

void Player::playlistChanged()
{
    if (m_playlist->rowsCount() == 0)
        rest(stopped, 0);
    else if (m_playlist->trackNumber() != m_trackNumber)
        startFrom(0);
    m_trackNumber = m_playlist->trackNumber();
}

void Player::play()
{
    if (state() == playing)
        return;
    m_nodes.state->setMeasured(ZarkValue::fromString(playing));
    m_timer.start();
    m_sinceStart.start();
    startFrom(m_startMs);
}

void Player::rest(const QString& state, qint64 positionMs)
{
    m_timer.stop();
    m_sinceStart.invalidate();
    m_nodes.state->setMeasured(ZarkValue::fromString(state));
    startFrom(qMin(positionMs, m_playlist->currentDuration()));
}

void Player::startFrom(qint64 positionMs)
{
    m_startMs = positionMs;
    if (m_sinceStart.isValid())
        m_sinceStart.start();
    show(positionMs);
}

void Player::tick()
{
    // The loop, for a process that was stopped for longer than a track lasts.
    qint64 position = now();
    while (position >= m_playlist->currentDuration()) {
        position -= m_playlist->currentDuration();
        m_playlist->step(1);
    }
    m_trackNumber = m_playlist->trackNumber();
    startFrom(position);
}

void Player::show(qint64 positionMs)
{
    m_nodes.position->setMeasured(ZarkValue::fromI64(positionMs));
    m_nodes.track->setMeasured(ZarkValue::fromString(m_playlist->currentTitle()));
}

qint64 Player::now() const
{
    return m_startMs + (m_sinceStart.isValid() ? m_sinceStart.elapsed() : 0);
}
