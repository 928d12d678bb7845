#pragma once

#include <QSet>
#include <QString>

#include <memory>

#include "CMValueItem.h"
#include "ZarkWebserverAuthMode.h"

class Responder;

/// What all responders of the worker share: its settings, and the brake on failed authentications.
///
/// A reply to failed credentials is held back: the first after a verified success not at all, each further one 1 to 4
/// seconds longer than the one before (10 at the most), and all queue behind one another, whoever sent them.
class ResponderConfiguration {
public:
    bool strictRequests() const { return m_strictRequests; }
    void setStrictRequests(bool strict) { m_strictRequests = strict; }
    ZarkWebserverAuthMode::Enum authMode() const { return m_authMode; }
    void setAuthMode(ZarkWebserverAuthMode::Enum mode) { m_authMode = mode; }
    /// How many values (of JSON, or fields of a form) one request may have.
    int maximumValues() const { return m_maximumValues; }
    void setMaximumValues(int values) { m_maximumValues = values; }
    /// How many rows one answer has at the most.
    int maximumRows() const { return m_maximumRows; }
    void setMaximumRows(int rows) { m_maximumRows = rows; }
    /// Null unless the device has the analytics feature.
    const CMValueItem* analyticsEnabled() const { return m_analyticsEnabled.get(); }
    void watchAnalyticsEnabled(const CMPath& path)
    {
        m_analyticsEnabled = std::make_unique<CMValueItem>(nullptr, path);
    }

    /// Lets the responder finish when its turn has come; until then no byte of its answer, which is set already,
    /// leaves.
    void authFailBlock(Responder* responder, int requestId);
    void authFailReset();
    int heldAnswers() const { return *m_heldAnswers; } ///< By authFailBlock(), at this moment.
    qint64 failures() const { return m_failures; } ///< That were ever held back.

    /// Whether the clock of that client is worth a warning in the log: once a minute each, and for a hundred clients in
    /// one minute, however many there are.
    bool warnsOfClock(const QString& client);

private:
    bool m_strictRequests = false;
    ZarkWebserverAuthMode::Enum m_authMode = ZarkWebserverAuthMode::Everything;
    int m_maximumValues = 20000;
    int m_maximumRows = 1000;
    qint32 m_nextDelay = 0; ///< Milliseconds.
    qint64 m_blockedUntil = 0; ///< Milliseconds of the monotonic clock.
    std::shared_ptr<int> m_heldAnswers = std::make_shared<int>(0); ///< Of responders, some of which end later.
    qint64 m_failures = 0;
    QSet<QString> m_warnedOfClock; ///< In this minute.
    qint64 m_warnedMinute = 0;
    std::unique_ptr<CMValueItem> m_analyticsEnabled;
};
