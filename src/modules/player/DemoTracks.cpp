#include "DemoTracks.h"

#include "Playlist.h"

namespace {

QVariantHash makeDemoTrack(int index)
{
    static const QStringList moods{ QStringLiteral("Quiet"), QStringLiteral("Amber"), QStringLiteral("Northern"),
        QStringLiteral("Paper"), QStringLiteral("Hollow"), QStringLiteral("Silver"), QStringLiteral("Distant") };
    static const QStringList things{ QStringLiteral("Harbour"), QStringLiteral("Lantern"), QStringLiteral("Orchard"),
        QStringLiteral("Tide"), QStringLiteral("Staircase"), QStringLiteral("Meadow"), QStringLiteral("Signal"),
        QStringLiteral("Window"), QStringLiteral("Café"), QStringLiteral("Glacier"), QStringLiteral("Compass") };
    static const QStringList artists{ QStringLiteral("The Paperclips"), QStringLiteral("Ida Lindqvist"),
        QStringLiteral("Trio Müllerbach"), QStringLiteral("Low Ceiling"), QStringLiteral("Åsa & the Ferrymen") };
    // The counts of words are coprime, and so every pair comes up before one comes again.
    const QString title = QStringLiteral("%1 %2 No. %3")
                              .arg(moods.at(index % moods.size()), things.at(index % things.size()))
                              .arg(index + 1);
    const qint64 durationMs = 120000 + qint64(index) * 7919 % 180000;
    return Playlist::makeTrack(title, artists.at(index % artists.size()), durationMs);
}

} // namespace

QVector<QVariantHash> makeDemoTracks(int count)
{
    QVector<QVariantHash> tracks;
    for (int index = 0; index < count; ++index)
        tracks.append(makeDemoTrack(index));
    return tracks;
}
