#include "KXCurlEngine.h"

#include "KXConfigStore.h"
#include "KXCurlRequest.h"
#include "KXCurlWorker.h"

CKXCurlEngine& CKXCurlEngine::inst()
{
    static CKXCurlEngine engine;
    return engine;
}

CKXCurlEngine::CKXCurlEngine()
{
    // The configuration must outlive the engine, whose destructor still stops the thread.
    CKXConfigStore::inst();
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

CKXCurlEngine::~CKXCurlEngine()
{
    shutdown();
}

qint64 CKXCurlEngine::submit(KXHttpExchange exchange)
{
    const qint64 id = m_nextId.fetch_add(1);
    std::unique_ptr<CKXCurlRequest> request(new CKXCurlRequest(id, std::move(exchange)));
    // A worker refuses requests once it is stopping; by then shutdown has taken it away from
    // m_worker, so the next turn finds (or starts) a fresh one.
    while (request)
        request = currentWorker()->submit(std::move(request));
    return id;
}

std::shared_ptr<CKXCurlWorker> CKXCurlEngine::currentWorker()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_worker) {
        m_worker = std::make_shared<CKXCurlWorker>();
        m_worker->start();
    }
    return m_worker;
}

void CKXCurlEngine::cancel(qint64 requestId)
{
    std::shared_ptr<CKXCurlWorker> worker;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        worker = m_worker;
    }
    if (worker)
        worker->cancel(requestId);
}

void CKXCurlEngine::shutdown()
{
    if (CKXCurlWorker::onLibraryThread()) {
        std::shared_ptr<CKXCurlWorker> worker;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            worker = std::move(m_worker);
            if (worker)
                m_retired.push_back(worker);
        }
        if (worker)
            worker->requestStop();
        return;
    }
    std::lock_guard<std::mutex> shutdownLock(m_shutdownMutex);
    std::vector<std::shared_ptr<CKXCurlWorker>> stopping;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        stopping.swap(m_retired);
        if (m_worker)
            stopping.push_back(std::move(m_worker));
    }
    for (const std::shared_ptr<CKXCurlWorker>& worker : stopping) {
        worker->requestStop();
        worker->join();
    }
}
