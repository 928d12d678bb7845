#include "HttpsSettings.h"

#include <functional>

#include "CMNodeTree.h"
#include "CMRoot.h"
#include "CMValueNode.h"
#include "CertificatePair.h"
#include "WebserverLog.h"
#include "ZarkPaths.h"

namespace {

ZarkValue setting(const CMPath& path)
{
    return ZarkValue(CMRoot()->getValue(path));
}

void guard(const CMPath& path, const std::function<QString(const QString&)>& faultOf)
{
    auto* node = dynamic_cast<CMValueNode*>(CMRoot()->tree()->node(path));
    if (!node)
        return;
    node->setValidator([faultOf](const ZarkValue& value) {
        const QString fault = value.string().isEmpty() ? QString() : faultOf(value.string());
        return fault.isEmpty() ? CMError() : CMError(CMError::Failed, TrString(fault));
    });
}

} // namespace

HttpsSettings HttpsSettings::read()
{
    dbglog_scopedFunction(webserverLog());
    HttpsSettings settings;
    settings.certificatePem = setting(ZarkWebserverHttpsCertPath()).string();
    settings.keyPem = setting(ZarkWebserverHttpsPrivateKeyPath()).string();
    settings.useDeviceCert = setting(ZarkWebserverHttpsUseDeviceCertPath()).bool_();
    settings.port = setting(ZarkWebserverHttpsPortPath()).i32();
    return settings;
}

void HttpsSettings::guardNodes()
{
    dbglog_scopedFunction(webserverLog());
    guard(ZarkWebserverHttpsCertPath(),
        [](const QString& certificate) { return certificatePairFault(certificate, read().keyPem); });
    guard(ZarkWebserverHttpsPrivateKeyPath(),
        [](const QString& key) { return certificatePairFault(read().certificatePem, key); });
}

void HttpsSettings::restrictTls()
{
    dbglog_scopedFunction(webserverLog());
    static const char name[] = "G_TLS_GNUTLS_PRIORITY";
    if (!qEnvironmentVariableIsSet(name))
        qputenv(name,
            "NORMAL:%COMPAT:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2:-RSA"
            ":-AES-128-CBC:-AES-256-CBC:-3DES-CBC:-CAMELLIA-128-CBC:-CAMELLIA-256-CBC");
}
