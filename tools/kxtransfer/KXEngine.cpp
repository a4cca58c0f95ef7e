#include "KXEngine.h"

#include "IKXTransfer.h"
#include "ServerApiConfig.h"

void CKXEngine::setUp(const KXEngineSettings& settings)
{
    ServerApi::Config config = ServerApi::config();
    QString base = settings.server;
    while (base.endsWith(QLatin1Char('/'))) {
        base.chop(1);
    }
    config.baseUrl = base;
    config.sessionId = settings.token;
    config.maxSendBytesPerSec = settings.limit;
    config.maxRecvBytesPerSec = settings.limit;
    if (settings.timeout > 0) {
        // One silent period ends a request however many retries it still has.
        const int ms = settings.timeout * 1000;
        config.lowSpeedTimeSec = settings.timeout;
        config.connectTimeoutMs = qMin(config.connectTimeoutMs, ms);
        config.retryBudgetMs = ms;
    }
    ServerApi::configure(config);

    // The value of the user-path key is the task log's level; 1 keeps information and above.
    Transfer::setConfig(TransferConfigUserPath, QStringLiteral("1"));
    Transfer::setConfig(TransferConfigMaxConcurrentCount, QString::number(settings.jobs));
    Transfer::setConfig(TransferConfigSpeedLimit, QString::number(settings.limit));
}

void CKXEngine::shutDown()
{
    Transfer::deinit();
    ServerApi::shutdown();
}
