#pragma once

#include <QEnableSharedFromThis>
#include <QHash>
#include <QSharedPointer>
#include <QString>

#include <limits>

/// What the proxy's fetches may take of the device: fetches under way, and bytes of bodies that are fetched or not yet
/// sent. One client gets a number of fetches and half of the bytes, so that it leaves something to others.
class FetchBudget : public QEnableSharedFromThis<FetchBudget> {
public:
    struct Limits {
        int fetches = std::numeric_limits<int>::max();
        int fetchesPerClient = std::numeric_limits<int>::max();
        qint64 bytes = std::numeric_limits<qint64>::max();
    };

    /// The part of one fetch; given back when it is destroyed. Keeps the budget.
    class Share {
    public:
        Share(const QSharedPointer<FetchBudget>& budget, const QString& client);
        ~Share();
        Q_DISABLE_COPY(Share)

        /// Takes so many bytes more; false, and nothing is taken, when there are none left.
        bool hold(int bytes);

    private:
        QSharedPointer<FetchBudget> m_budget;
        QString m_client;
        qint64 m_bytes = 0;
    };

    explicit FetchBudget(const Limits& limits) : m_limits(limits) { }

    /// Null when no fetch is left, or none for this client.
    QSharedPointer<Share> admit(const QString& client);

    int underWay() const { return m_all.fetches; }
    qint64 finished() const { return m_admitted - m_all.fetches; } ///< Ever, however they ended.

private:
    struct Use {
        int fetches = 0;
        qint64 bytes = 0;
    };

    void add(const QString& client, int fetches, qint64 bytes);

    Limits m_limits;
    Use m_all;
    qint64 m_admitted = 0;
    QHash<QString, Use> m_clients; ///< Those that have any.
};
