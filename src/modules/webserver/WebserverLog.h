#pragma once

#include "dbglog.h"

/// The logger "Webserver" of everything in this module.
const DbgLogger& webserverLog();
