#pragma once

#include <QString>

struct HostOptions;

/// Where the log goes: to standard error, with syslog priorities when that is the journal, or as a file says.
class LogSetup {
public:
    explicit LogSetup(const HostOptions& options);

    /// Reads the configuration, also for a second time. False with a sentence in `error`; the log stays as it was.
    bool apply(QString* error) const;

private:
    QString m_file;
    QString m_level;
};
