// The response parsers over any answer a server or a broken connection can produce. Input: the
// first byte picks the parser, the next two give the HTTP status, the rest is the body.

#include "KXFuzzHome.h"
#include "KXTransferParse.h"

#include <cstddef>
#include <cstdint>

namespace {

// What every parser promises whatever the body: an answer outside 200..399 is an error.
void checkCommon(const CKXParseProcessor& parser, int status)
{
    if (status < 200 || status > 399) {
        KX_FUZZ_CHECK(parser.hasError());
    }
    KX_FUZZ_CHECK(parser.statusCode() == status);
}

template <typename Parser> Parser parsed(const ResponseData& response)
{
    Parser parser;
    parser.ParseResp(response);
    checkCommon(parser, response.statusCode);
    return parser;
}

void readAll(const ResponseData& response, unsigned pick)
{
    switch (pick % 8) {
    case 0: {
        KXBaseParse parser = parsed<KXBaseParse>(response);
        parser.sessiondId();
        parser.errorMsg();
        break;
    }
    case 1: {
        const CKXQueryHashParse parser = parsed<CKXQueryHashParse>(response);
        KX_FUZZ_CHECK(parser.need_upload() == !parser.blockHashes().isEmpty());
        break;
    }
    case 2: {
        const CKXCommitHashParse parser = parsed<CKXCommitHashParse>(response);
        // The metadata is cut out of the body, never made up.
        KX_FUZZ_CHECK(parser.meta().isEmpty() || response.body.contains(parser.meta()));
        parser.path();
        break;
    }
    case 3: {
        const CKXChunkedUploadParse parser = parsed<CKXChunkedUploadParse>(response);
        parser.hash();
        parser.uploadId();
        break;
    }
    case 4:
        parsed<CKXUploadParse>(response).path();
        break;
    case 5:
        parsed<CKXAuthUplaodParse>(response).getDataServerHost();
        break;
    case 6: {
        const CKXDeliveryAuthUploadParse parser = parsed<CKXDeliveryAuthUploadParse>(response);
        parser.deliverySessionId();
        parser.uploadUrl();
        parser.LBC();
        break;
    }
    default: {
        const QString meta = CKXCommitHashParse::getMetaString(response.body);
        KX_FUZZ_CHECK(response.body.contains(meta));
        parsed<CKXDlRouterParse>(response);
        break;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    ResponseData response;
    // 0 (no answer) up to 699, past every status a server sends.
    response.statusCode = ((data[1] << 8) | data[2]) % 700;
    response.body = QString::fromUtf8(reinterpret_cast<const char*>(data + 3), int(size - 3));
    readAll(response, data[0]);
    return 0;
}
