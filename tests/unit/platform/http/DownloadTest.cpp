#include <sys/stat.h>

#include <cstdlib>

#include "DownloadFixture.h"
#include "fakes/LogCapture.h"

namespace {

using namespace download;
using fakes::HttpAnswer;

class Download : public Fixture {};

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST_F(Download, StoresTheFile) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(contentOf(target), "content");
    EXPECT_EQ(modeOf(target), 0600U);
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"file.xml"});
}

TEST_F(Download, CreatesTheFolders) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch(server.url("/a.xml"), folder + "/new/deep/file.xml"), ok);
    EXPECT_EQ(contentOf(folder + "/new/deep/file.xml"), "content");
    EXPECT_EQ(modeOf(folder + "/new"), 0700U);
    EXPECT_EQ(modeOf(folder + "/new/deep"), 0700U);
}

TEST_F(Download, ReplacesAFile) {
    writeFile(target, "old, and longer than the new one");
    server.on("/a.xml", HttpAnswer::ok("new"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(target), "new");
}

TEST_F(Download, StoresAnEmptyFile) {
    writeFile(target, "old");
    server.on("/a.xml", HttpAnswer::ok(""));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(target), "");
}

TEST_F(Download, KeepsBinaryContent) {
    std::string bytes(300000, '\0');
    for (std::size_t at = 0; at < bytes.size(); ++at) bytes[at] = static_cast<char>(at * 31 + at / 251);
    server.on("/a.bin", HttpAnswer::ok(bytes));
    EXPECT_EQ(fetch("/a.bin"), ok);
    EXPECT_EQ(contentOf(target), bytes);
}

TEST_F(Download, SendsPathAndQueryUnchanged) {
    server.on("/d%20ir/a%2fb", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/d%20ir/a%2fb?x=%31&y"), ok);
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(server.requests()[0].target, "/d%20ir/a%2fb?x=%31&y");
}

TEST_F(Download, ExpandsDevicePlaceholders) {
    server.on("/kd4v/00-1A-2B-3C-4D-5E.xml", HttpAnswer::ok("mine"));
    EXPECT_EQ(fetch("/%DVID/%MACD.xml"), ok);
    EXPECT_EQ(contentOf(target), "mine");
}

TEST_F(Download, FailsIfAPlaceholderCannotBeExpanded) {
    const fakes::LogCapture log;
    properties->setOffline(true);
    EXPECT_EQ(fetch("/%DVID.xml"), malformedUrl);
    EXPECT_EQ(curl->getHttpCode(), 0);
    EXPECT_TRUE(server.requests().empty());
    EXPECT_EQ(log.lines(), fakes::LogCapture::Lines{fakes::warning(
                               "platform/http/src/FileDownloader",
                               "URL cannot be completed: Property 'System.General.DeviceID': the property service is "
                               "offline")});
}

class OtherStatus : public Fixture, public testing::WithParamInterface<int> {};

TEST_P(OtherStatus, LeavesTheOldFile) {
    writeFile(target, "old");
    server.on("/a.xml", HttpAnswer::error(GetParam(), "<html>not what you want</html>"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), GetParam());
    EXPECT_EQ(contentOf(target), "old");
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"file.xml"});
}

INSTANTIATE_TEST_SUITE_P(Download, OtherStatus,
                         testing::Values(201, 204, 206, 300, 304, 400, 401, 403, 404, 410, 416, 500, 503));

TEST_F(Download, LeavesNoFileWhenThereWasNone) {
    server.on("/a.xml", HttpAnswer::error(404));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Download, AbandonsAnEndlessErrorPage) {
    HttpAnswer answer = HttpAnswer::error(404, std::string(5000, 'x'));
    answer.endless = true;
    server.on("/a.xml", answer);
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
}

TEST_F(Download, ReportsARefusedConnection) {
    writeFile(target, "old");
    std::string url;
    {
        const fakes::HttpServer gone;
        url = gone.url("/a.xml");
    }
    EXPECT_EQ(fetch(url, target), couldNotConnect);
    EXPECT_EQ(curl->getHttpCode(), 0);
    EXPECT_EQ(contentOf(target), "old");
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"file.xml"});
}

TEST_F(Download, ResetsTheStatus) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(fetch("", target), malformedUrl);
    EXPECT_EQ(curl->getHttpCode(), 0);
}

TEST_F(Download, DiscardsATruncatedBody) {
    writeFile(target, "old");
    server.on("/a.xml", HttpAnswer::ok("a long enough body").cutOffAfter(6));
    EXPECT_EQ(fetch("/a.xml"), partialFile);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_EQ(contentOf(target), "old");
    EXPECT_EQ(namesIn(folder), std::vector<std::string>{"file.xml"});
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(Download, AcceptsABodyWithoutLength) {
    server.on("/a.xml", withoutLength("until the end"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(target), "until the end");
}

TEST_F(Download, AcceptsManySmallChunks) {
    const std::size_t count = 200000;
    std::string bytes = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    for (std::size_t at = 0; at < count; ++at) bytes += "1\r\nx\r\n";
    server.on("/a.xml", HttpAnswer::bytes(bytes + "0\r\n\r\n"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_TRUE(holds(target, std::string(count, 'x')));
}

TEST_F(Download, RequestsNoCodings) {
    server.on("/a.xml", HttpAnswer::ok("content", {{"Content-Encoding", "identity"}}));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(target), "content");
    EXPECT_EQ(server.requests().at(0).header("Accept-Encoding"), "");
    EXPECT_EQ(server.requests().at(0).header("TE"), "");
}

class ContentCoding : public Fixture {
 protected:
    int fetchCoded(const std::string& path, const fakes::HttpHeaders& headers) {
        server.on(path, HttpAnswer::ok("\x1f\x8b packed", headers));
        return fetch(path);
    }
};

TEST_F(ContentCoding, FailsTheDownloadAndIsLogged) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetchCoded("/a.xml", {{"Content-Encoding", "gzip"}}), badCoding);
    EXPECT_EQ(curl->getHttpCode(), 200);
    EXPECT_TRUE(namesIn(folder).empty());
    const std::string line = "The answer has the content coding 'gzip', which was not requested; download failed";
    EXPECT_TRUE(log.has(fakes::warning("platform/http/src/Transfer", line))) << log.text();
}

TEST_F(ContentCoding, OfTheSuffixIsStoredUndecoded) {
    EXPECT_EQ(fetchCoded("/image.img.gz", {{"Content-Encoding", "gzip"}}), ok);
    EXPECT_EQ(contentOf(target), "\x1f\x8b packed");
}

TEST_F(ContentCoding, CombinedWithAnotherFails) {
    EXPECT_EQ(fetchCoded("/a.gz", {{"Content-Encoding", "gzip"}, {"Content-Encoding", "br"}}), badCoding);
    EXPECT_EQ(fetchCoded("/a.gz", {{"Content-Encoding", "identity"}, {"Content-Encoding", "gzip"}}), ok);
}

TEST_F(ContentCoding, IsComparedWithTheRequestedName) {
    server.on("/image.img", HttpAnswer::redirect("/mirror/image.img.gz"));
    EXPECT_EQ(fetchCoded("/mirror/image.img.gz", {{"Content-Encoding", "gzip"}}), ok);
    EXPECT_EQ(fetch("/image.img"), badCoding);
    server.on("/image.img.gz", HttpAnswer::redirect("/mirror/4711"));
    EXPECT_EQ(fetchCoded("/mirror/4711", {{"Content-Encoding", "gzip"}}), badCoding);
    EXPECT_EQ(fetch("/image.img.gz"), ok);
}

TEST_F(ContentCoding, IsIgnoredUnlessTheStatusIs200) {
    HttpAnswer missing = HttpAnswer::error(404);
    missing.headers = {{"Content-Encoding", "gzip"}};
    server.on("/a.xml", missing);
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(curl->getHttpCode(), 404);
}

TEST_F(ContentCoding, WithoutAValueIsIgnored) {
    EXPECT_EQ(fetchCoded("/a.xml", {{"Content-Encoding", ""}}), ok);
    EXPECT_EQ(fetchCoded("/a.xml", {{"Content-Encoding", " \t "}}), ok);
    EXPECT_EQ(fetchCoded("/a.gz", {{"Content-Encoding", ""}, {"Content-Encoding", "gzip "}}), ok);
}

class HeaderLimit : public Fixture {
 protected:
    // At least `bytes` of header lines.
    static std::string lines(std::size_t bytes) {
        std::string text;
        while (text.size() < bytes) text += "A: " + std::string(1000, 'a') + "\r\n";
        return text;
    }

    int fetchBytes(const std::string& bytes) {
        server.on("/a.xml", HttpAnswer::bytes(bytes));
        return fetch("/a.xml");
    }

    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n7\r\ncontent\r\n0\r\n";
};

TEST_F(HeaderLimit, AllowsLargeHeaders) {
    EXPECT_EQ(fetchBytes(head + lines(120000) + chunked + lines(120000) + "\r\n"), ok);
    EXPECT_EQ(contentOf(target), "content");
}

TEST_F(HeaderLimit, CountsHeadersAndTrailersTogether) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetchBytes(head + lines(140000) + chunked + lines(140000) + "\r\n"), invalidResponse);
    EXPECT_TRUE(namesIn(folder).empty());
    EXPECT_EQ(log.count(fakes::warning("platform/http/src/Transfer",
                                       "The answer's headers are larger than 256 KiB, download failed")),
              1U)
        << log.text();
}

TEST_F(HeaderLimit, CountsInterimResponses) {
    const std::string interim = "HTTP/1.1 103 Early Hints\r\n" + lines(140000) + "\r\n";
    EXPECT_EQ(fetchBytes(interim + interim + head + chunked + "\r\n"), invalidResponse);
}

TEST_F(HeaderLimit, OfASingleLineIsLogged) {
    const fakes::LogCapture log;
    EXPECT_EQ(fetchBytes(head + "A: " + std::string(150000, 'a') + "\r\n" + chunked + "\r\n"), outOfMemory);
    EXPECT_TRUE(log.has(fakes::warning("platform/http/src/Transfer",
                                       "A header of the answer is too long, or memory ran out; download failed")))
        << log.text();
}

TEST_F(HeaderLimit, IsPerTransfer) {
    const std::string much = head + lines(140000) + chunked + "\r\n";
    EXPECT_EQ(fetchBytes(much), ok);
    EXPECT_EQ(fetchBytes(much), ok);
}

TEST_F(Download, ReusesTheConnection) {
    server.on("/a.xml", HttpAnswer::ok("a"));
    server.on("/b.xml", HttpAnswer::ok("b"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(fetch("/b.xml"), ok);
    EXPECT_EQ(contentOf(target), "b");
    EXPECT_EQ(server.requests().at(0).connection, server.requests().at(1).connection);
}

TEST_F(Download, IgnoresPasswordsOfTheHomeFolder) {
    const char* const before = std::getenv("HOME");
    const std::string home = before == nullptr ? "" : before;
    ::setenv("HOME", folder.c_str(), 1);
    writeFile(folder + "/.netrc", "machine 127.0.0.1 login somebody password secret\n");
    server.on("/a.xml", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    ::setenv("HOME", home.c_str(), 1);
    EXPECT_EQ(server.requests().at(0).header("Authorization"), "");
}

TEST_F(Download, IgnoresProxyVariables) {
    ASSERT_EQ(::setenv("http_proxy", "http://127.0.0.1:1", 1), 0);
    ASSERT_EQ(::setenv("ALL_PROXY", "http://127.0.0.1:1", 1), 0);
    server.on("/a.xml", HttpAnswer::ok("direct"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    ::unsetenv("http_proxy");
    ::unsetenv("ALL_PROXY");
}

TEST_F(Download, SendsNoCookies) {
    server.on("/a.xml", HttpAnswer::ok("a", {{"Set-Cookie", "id=1; Path=/"}}));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(server.requests().at(1).header("Cookie"), "");
}

TEST_F(Download, RequiresAFileName) {
    server.on("/a.xml", HttpAnswer::ok("content"));
    for (const std::string& destination :
         {folder + "/", folder + "/.", folder + "/..", folder + "/../x/f", std::string()}) {
        EXPECT_EQ(fetch(server.url("/a.xml"), destination), writeError) << destination;
        EXPECT_EQ(curl->getHttpCode(), 0);
    }
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(Download, FailsIfTheDestinationCannotBeWritten) {
    const fakes::LogCapture log;
    server.on("/a.xml", HttpAnswer::ok("content"));
    writeFile(folder + "/plain", "a file, no folder");
    EXPECT_EQ(fetch(server.url("/a.xml"), folder + "/plain/file.xml"), writeError);
    EXPECT_EQ(fetch(server.url("/a.xml"), "/proc/no/such/file.xml"), writeError);
    EXPECT_EQ(fetch(server.url("/a.xml"), folder + "/" + std::string(300, 'n')), writeError);
    EXPECT_TRUE(server.requests().empty());

    std::filesystem::create_directory(target);
    EXPECT_EQ(fetch("/a.xml"), writeError);
    EXPECT_TRUE(std::filesystem::is_directory(target));
    EXPECT_TRUE(namesIn(target).empty());
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 4U);
    for (const auto& line : lines) EXPECT_EQ(line.level, "error") << line;
    EXPECT_EQ(lines[0], fakes::error("platform/http/src/FileDownloader",
                                     "Cannot open the folder " + folder + "/plain/: Not a directory"));
}

TEST_F(Download, DoesNotFollowSymbolicLinks) {
    const std::string victim = folder + "/victim";
    writeFile(victim, "precious");
    std::filesystem::create_symlink(victim, folder + "/.file.xml.part");
    std::filesystem::create_symlink(victim, target);
    server.on("/a.xml", HttpAnswer::ok("content"));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(contentOf(victim), "precious");
    EXPECT_EQ(contentOf(target), "content");
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(target)));
}

TEST_F(Download, RemovesAnEarlierPartialFile) {
    writeFile(folder + "/.file.xml.part", "half a fi");
    server.on("/a.xml", HttpAnswer::error(404));
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_TRUE(namesIn(folder).empty());
}

TEST_F(Download, ReplacesTheFileOnlyWhenComplete) {
    writeFile(target, "old");
    const auto gate = std::make_shared<fakes::Gate>();
    server.on("/a.xml", HttpAnswer::ok("first second").stallingAfter(5, gate));
    std::string meanwhile;
    curl->setProgressCallback([&](long, long now, long, long) {
        if (now != 5 || !meanwhile.empty()) return;
        meanwhile = contentOf(target);
        gate->open();
    });
    EXPECT_EQ(fetch("/a.xml"), ok);
    EXPECT_EQ(meanwhile, "old");
    EXPECT_EQ(contentOf(target), "first second");
}

}  // namespace
