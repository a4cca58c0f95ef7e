#include "ServerApiConfig.h"

#include "KXConfigStore.h"
#include "KXCurlEngine.h"

namespace ServerApi {

void configure(const Config& config)
{
    CKXConfigStore::inst().set(config);
}

Config config()
{
    return CKXConfigStore::inst().get();
}

void shutdown()
{
    CKXCurlEngine::inst().shutdown();
}

} // namespace ServerApi
