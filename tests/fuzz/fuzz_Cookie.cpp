// The share-session cookie rule over any Set-Cookie header: the value of the last piece that
// starts with "S=", after its last '='.

#include "KXFuzzHome.h"
#include "KXTransferParse.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ResponseData response;
    response.statusCode = 200;
    const QByteArray header(reinterpret_cast<const char*>(data), int(size));
    response.headers.insert(QByteArrayLiteral("Set-Cookie"), header);
    KXBaseParse parser;
    parser.ParseResp(response);
    const QString value = parser.s();
    KX_FUZZ_CHECK(!value.contains(QLatin1Char('=')) && !value.contains(QLatin1Char(';')));
    KX_FUZZ_CHECK(!value.contains(QLatin1Char('\r')) && !value.contains(QLatin1Char('\n')));
    if (!value.isEmpty()) {
        KX_FUZZ_CHECK(QString::fromUtf8(header).contains(QLatin1String("S=")));
    }
    KX_FUZZ_CHECK(parser.s() == value);
    return 0;
}
