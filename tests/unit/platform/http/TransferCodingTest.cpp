// Bodies are stored as sent. The only transfer coding that is accepted and decoded is chunked.
#include <iterator>
#include <sstream>

#include "DownloadFixture.h"
#include "fakes/LogCapture.h"
#include "fakes/TestAuthority.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

std::string chunksOf(const std::string& body) {
    std::ostringstream chunks;
    chunks << std::hex << body.size() << "\r\n" << body << "\r\n0\r\n\r\n";
    return chunks.str();
}

// "content" in gzip.
std::string gzipped() {
    const unsigned char bytes[] = {0x1f, 0x8b, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x02, 0x03, 0x4b, 0xce, 0xcf, 0x2b,
                                   0x49, 0xcd, 0x2b, 0x01, 0x00, 0xa9, 0x30, 0xc5, 0xfe, 0x07, 0x00, 0x00, 0x00};
    return {std::begin(bytes), std::end(bytes)};
}

HttpAnswer coded(const std::string& header, const std::string& body) {
    return HttpAnswer::bytes("HTTP/1.1 200 OK\r\n" + header + "\r\n\r\n" + body);
}

class TransferCoding : public Fixture {
 protected:
    int fetchCoded(const std::string& header, const std::string& body) {
        server.on("/a.xml", coded(header, body));
        return fetch("/a.xml");
    }
};

class OtherTransferCoding : public TransferCoding, public testing::WithParamInterface<const char*> {};

TEST_P(OtherTransferCoding, FailsTheDownload) {
    EXPECT_EQ(fetchCoded(GetParam(), chunksOf("content")), badCoding);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(namesIn(folder).empty());
}

INSTANTIATE_TEST_SUITE_P(Download, OtherTransferCoding,
                         testing::Values("Transfer-Encoding: chunked, chunked", "Transfer-Encoding: chunked, identity",
                                         "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked",
                                         "Transfer-Encoding:\r\n chunked", "Transfer-Encoding: x-chunked",
                                         "Transfer-Encoding: identity"));

TEST_F(TransferCoding, GzipFailsTheDownloadAndIsLogged) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetchCoded("Transfer-Encoding: gzip, chunked", chunksOf(gzipped())), badCoding);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(namesIn(folder).empty());
    const std::string line =
        "The answer has the transfer coding 'gzip, chunked', which was not requested; download failed";
    EXPECT_EQ(log.count(fakes::warning("platform/http/src/Transfer", line)), 1U) << log.text();
}

TEST_F(TransferCoding, TruncatedGzipFailsTheDownload) {
    EXPECT_EQ(fetchCoded("Transfer-Encoding: gzip, chunked", chunksOf(gzipped().substr(0, 17))), badCoding);
    EXPECT_EQ(fetchCoded("Transfer-Encoding: gzip, chunked", chunksOf(gzipped().substr(0, 5))), badCoding);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(TransferCoding, ChunkedIgnoresCaseAndBlanks) {
    for (const char* header :
         {"Transfer-Encoding: chunked", "transfer-encoding:CHUNKED", "Transfer-Encoding:\t Chunked \t"}) {
        EXPECT_EQ(fetchCoded(header, chunksOf("content")), ok) << header;
        EXPECT_EQ(contentOf(target), "content") << header;
    }
}

TEST_F(TransferCoding, IsIgnoredUnlessTheStatusIs200) {
    server.on("/a.xml", HttpAnswer::bytes("HTTP/1.1 404 No\r\nTransfer-Encoding: chunked, chunked\r\n\r\n0\r\n\r\n"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
}

// libcurl decodes chunks only if the header is not folded, so nothing would confirm the end of this body.
TEST_F(TransferCoding, InAFoldedHeaderFailsOverTls) {
    const fakes::TestAuthority authority;
    fakes::HttpServer secure(authority);
    trust(authority.certificate());
    HttpAnswer answer = coded("Transfer-Encoding:\r\n chunked", "short");
    answer.ending = fakes::Ending::withoutCloseNotify;
    secure.on("/a.xml", answer);
    EXPECT_EQ(fetch(secure.url("/a.xml"), target), badCoding);
    EXPECT_TRUE(namesIn(folder).empty());
}

}  // namespace
