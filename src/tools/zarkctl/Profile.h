#pragma once

#include "Target.h"

/// What `zarkctl login` keeps of a device, in a file of mode 0600 in the user's configuration directory
/// ($XDG_CONFIG_HOME/zarkctl/NAME.json).
constexpr const char* DefaultProfile = "default";

bool hasProfile(const QString& name);
/// Throws a Failure of status ExitUsage when it cannot be read, or when others than its owner can.
Target readProfile(const QString& name);
/// Replaces it as a whole. Throws a Failure.
void writeProfile(const QString& name, const Target& target);
/// False when there is none.
bool removeProfile(const QString& name);
/// Where `zarkctl cert trust` keeps the certificate that a device's own is trusted by.
QString trustedFile(const QUrl& url);
/// The directory, made with mode 0700 when it is missing.
QString profileDirectory();
