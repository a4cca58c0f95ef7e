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

qint64 CKXCurlEngine::submit(KXHttpRequestSpec spec)
{
    const qint64 id = m_nextId.fetch_add(1);
    std::unique_ptr<CKXCurlRequest> request(new CKXCurlRequest(id, std::move(spec)));
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_worker) {
        m_worker.reset(new CKXCurlWorker);
        m_worker->start();
    }
    m_worker->submit(std::move(request));
    return id;
}

void CKXCurlEngine::cancel(qint64 requestId)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_worker)
        m_worker->cancel(requestId);
}

void CKXCurlEngine::shutdown()
{
    if (CKXCurlWorker::onLibraryThread()) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_worker) {
            m_worker->requestStop();
            m_retired.push_back(std::move(m_worker));
        }
        return;
    }
    std::lock_guard<std::mutex> shutdownLock(m_shutdownMutex);
    std::vector<std::unique_ptr<CKXCurlWorker>> stopping;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_worker) {
            m_worker->requestStop();
            stopping.push_back(std::move(m_worker));
        }
        for (std::unique_ptr<CKXCurlWorker>& worker : m_retired)
            stopping.push_back(std::move(worker));
        m_retired.clear();
    }
    for (std::unique_ptr<CKXCurlWorker>& worker : stopping)
        worker->join();
}
