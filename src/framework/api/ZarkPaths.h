#pragma once

#include "CMPath.h"

// Where the framework keeps its settings, each the path of a node.

CMPath ZarkWebserverPortPath(); ///< i32; 0 or less: no HTTP server.
CMPath ZarkWebserverHttpsPortPath(); ///< i32; 0 or less: no HTTPS server.
CMPath ZarkWebserverHttpsCertPath(); ///< string, PEM.
CMPath ZarkWebserverHttpsPrivateKeyPath(); ///< string, PEM.
CMPath ZarkWebserverHttpsUseDeviceCertPath(); ///< bool
CMPath ZarkWebserverDocumentRootPath(); ///< string, a directory.
CMPath ZarkWebserverDefaultLocationPath(); ///< string, appended to the URL of the document root.
CMPath ZarkWebserverStrictPath(); ///< bool
CMPath ZarkWebserverAuthModePath(); ///< webserverAuthMode
CMPath ZarkWebserverUsersPath(); ///< webserverUsers
CMPath ZarkWebserverChangePasswordPath(); ///< command
CMPath ZarkWebserverEnableExternalWebAccessPath(); ///< bool
CMPath ZarkWebserverProxyAllowedHostsPath(); ///< stringList
CMPath ZarkWebserverStrictTransportSecondsPath(); ///< i32; 0 or less: HTTPS is not demanded of browsers.
CMPath ZarkWebserverLimitPath(const QString& name); ///< i32 under settings:webserver/limits/
CMPath ZarkUILanguagePath(); ///< string, such as "de".
CMPath ZarkNetworkInfoPath(); ///< networkInfo
CMPath ZarkWebserverUpdateBytesPath(); ///< i64, longest firmware image.
CMPath ZarkFirmwareUpdatePath(); ///< Takes an image.
CMPath ZarkAnalyticsEnabledPath(); ///< bool
CMPath ZarkAnalyticsReportEventPath(); ///< command

/// The directory prefix from which "/file/stream/" may read: the string at settings:webserver/readPathPrefix.
QString ZarkWebserverReadPathPrefix();
