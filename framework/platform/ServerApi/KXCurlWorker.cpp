#include "KXCurlWorker.h"

#include "KXConfigStore.h"
#include "KXCurlRequest.h"

#include <algorithm>

namespace {

thread_local bool t_libraryThread = false;

// Wakes the loop now and then even when nothing is due, so a lost wake-up can never stall it.
const int kMaxPollMs = 1000;

} // namespace

CKXCurlWorker::CKXCurlWorker() : m_multi(curl_multi_init()) {}

CKXCurlWorker::~CKXCurlWorker()
{
    join();
    if (m_multi)
        curl_multi_cleanup(m_multi);
}

void CKXCurlWorker::start()
{
    m_thread = std::thread([this] { run(); });
}

std::unique_ptr<CKXCurlRequest> CKXCurlWorker::submit(std::unique_ptr<CKXCurlRequest> request)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stop)
            return request;
        m_incoming.push_back(std::move(request));
    }
    curl_multi_wakeup(m_multi);
    return nullptr;
}

void CKXCurlWorker::cancel(qint64 requestId)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancels.push_back(requestId);
    }
    curl_multi_wakeup(m_multi);
}

void CKXCurlWorker::requestStop()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    curl_multi_wakeup(m_multi);
}

void CKXCurlWorker::join()
{
    if (m_thread.joinable() && !isOwnThread())
        m_thread.join();
}

bool CKXCurlWorker::isOwnThread() const
{
    return std::this_thread::get_id() == m_thread.get_id();
}

bool CKXCurlWorker::onLibraryThread()
{
    return t_libraryThread;
}

void CKXCurlWorker::run()
{
    t_libraryThread = true;
    applyConfig(true);
    while (takeIncoming()) {
        applyConfig(false);
        startWaiting();
        int stillRunning = 0;
        curl_multi_perform(m_multi, &stillRunning);
        collectFinished();
        m_limiter.resumeDue();
        curl_multi_poll(m_multi, nullptr, 0, pollTimeoutMs(), nullptr);
    }
    stopAll();
}

bool CKXCurlWorker::takeIncoming()
{
    std::vector<std::unique_ptr<CKXCurlRequest>> incoming;
    std::vector<qint64> cancels;
    bool stop = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        incoming.swap(m_incoming);
        cancels.swap(m_cancels);
        stop = m_stop;
    }
    for (std::unique_ptr<CKXCurlRequest>& request : incoming) {
        const qint64 id = request->id();
        Slot& slot = m_requests[id];
        slot.request = std::move(request);
        m_queue.push_back(id);
        if (slot.request->rejected())
            fail(id, slot.request->failureCode(), slot.request->failureText());
    }
    if (stop)
        return false;
    for (qint64 id : cancels)
        cancelRequest(id);
    return true;
}

void CKXCurlWorker::applyConfig(bool force)
{
    const quint64 generation = CKXConfigStore::inst().generation();
    if (!force && generation == m_configGeneration)
        return;
    m_configGeneration = generation;
    const ServerApi::Config config = CKXConfigStore::inst().get();
    m_limiter.setLimits(config.maxSendBytesPerSec, config.maxRecvBytesPerSec);
    // Transfers beyond the limit wait in our own queue rather than in libcurl's, where their
    // connect time-out would already be running.
    m_maxRunning = std::max(1, config.maxConnections);
    curl_multi_setopt(m_multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(m_maxRunning));
    curl_multi_setopt(m_multi, CURLMOPT_MAXCONNECTS, static_cast<long>(m_maxRunning));
}

void CKXCurlWorker::startWaiting()
{
    const Clock::time_point now = Clock::now();
    std::vector<qint64> due;
    for (auto it = m_queue.begin(); it != m_queue.end() && m_running + int(due.size()) < m_maxRunning;) {
        if (m_requests[*it].notBefore > now) {
            ++it;
            continue;
        }
        due.push_back(*it);
        it = m_queue.erase(it);
    }
    for (qint64 id : due)
        startRequest(id);
}

void CKXCurlWorker::startRequest(qint64 id)
{
    Slot& slot = m_requests[id];
    if (!slot.prepared) {
        slot.prepared = true;
        if (!slot.request->prepare(&m_limiter)) {
            fail(id, slot.request->failureCode(), slot.request->failureText());
            return;
        }
    }
    const CURLMcode added = curl_multi_add_handle(m_multi, slot.request->handle());
    if (added != CURLM_OK) {
        fail(id, CURLE_FAILED_INIT, QString::fromUtf8(curl_multi_strerror(added)));
        return;
    }
    slot.running = true;
    ++m_running;
}

void CKXCurlWorker::collectFinished()
{
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(m_multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        // The message dies with curl_multi_remove_handle: keep what it says first.
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        CKXCurlRequest* request = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &request);
        const qint64 id = request->id();
        Slot& slot = m_requests[id];
        detach(slot);
        const int delay = request->retryDelayMs(result);
        if (delay < 0) {
            finish(id, result);
            continue;
        }
        request->resetForRetry();
        slot.notBefore = Clock::now() + std::chrono::milliseconds(delay);
        m_queue.push_front(id);
    }
}

void CKXCurlWorker::detach(Slot& slot)
{
    if (!slot.running)
        return;
    curl_multi_remove_handle(m_multi, slot.request->handle());
    m_limiter.forget(slot.request->handle());
    slot.running = false;
    --m_running;
}

void CKXCurlWorker::finish(qint64 id, CURLcode result)
{
    auto it = m_requests.find(id);
    std::unique_ptr<CKXCurlRequest> request = std::move(it->second.request);
    m_requests.erase(it);
    request->complete(result);
}

void CKXCurlWorker::fail(qint64 id, int libraryError, const QString& text)
{
    auto it = m_requests.find(id);
    detach(it->second);
    std::unique_ptr<CKXCurlRequest> request = std::move(it->second.request);
    m_requests.erase(it);
    m_queue.erase(std::remove(m_queue.begin(), m_queue.end(), id), m_queue.end());
    request->fail(libraryError, text);
}

void CKXCurlWorker::cancelRequest(qint64 id)
{
    // Unknown ids are requests already completed (or never ours): nothing to do.
    if (m_requests.count(id) != 0)
        fail(id, ServerApi::ErrorCancelled, QStringLiteral("cancelled"));
}

void CKXCurlWorker::stopAll()
{
    std::vector<qint64> ids;
    for (const auto& entry : m_requests)
        ids.push_back(entry.first);
    std::sort(ids.begin(), ids.end());
    for (qint64 id : ids)
        fail(id, ServerApi::ErrorShutdown, QStringLiteral("the server library was shut down"));
}

int CKXCurlWorker::pollTimeoutMs()
{
    long timeout = -1;
    curl_multi_timeout(m_multi, &timeout);
    int wait = timeout < 0 ? kMaxPollMs : static_cast<int>(std::min<long>(timeout, kMaxPollMs));
    const int resume = m_limiter.msUntilResume();
    if (resume >= 0)
        wait = std::min(wait, resume);
    if (m_running < m_maxRunning && !m_queue.empty()) {
        const Clock::time_point now = Clock::now();
        for (qint64 id : m_queue) {
            const auto due =
                std::chrono::duration_cast<std::chrono::milliseconds>(m_requests[id].notBefore - now);
            wait = std::min(wait, std::max(0, static_cast<int>(due.count()) + 1));
        }
    }
    return wait;
}
