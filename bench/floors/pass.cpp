// floor_pass PORT: the unavoidable work of a pass. A line "URL COUNT" on standard input: GET of the URL to a synced
// file, openssl through sh, parse, and as many bare sets as the file has settings, each answered before the next one.
// Prints the milliseconds that this took, then those of each of the four; fails if the file has other than COUNT
// settings.
#include <curl/curl.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <vector>

#include "floors/BareClient.h"

namespace {

constexpr char encrypted[] = "/var/volatile/floor.xml";
constexpr char plain[] = "/var/volatile/floor.xml.tmp";

using Clock = std::chrono::steady_clock;

double milliseconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

struct Setting {
    std::string name;
    std::string value;
};

std::size_t writeTo(const char* data, std::size_t size, std::size_t count, void* file) {
    return std::fwrite(data, size, count, static_cast<FILE*>(file));
}

void download(CURL* curl, const std::string& url) {
    FILE* const file = std::fopen(encrypted, "wb");
    if (file == nullptr) throw std::runtime_error("cannot write");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeTo);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
    const CURLcode result = curl_easy_perform(curl);
    std::fflush(file);
    fsync(fileno(file));
    std::fclose(file);
    if (result != CURLE_OK) throw std::runtime_error(curl_easy_strerror(result));
}

void decrypt() {
    std::string shell = "sh";
    std::string option = "-c";
    std::string command = std::string("openssl enc -aes-128-cbc -d -in ") + encrypted + " -out " + plain +
                          " -pass file:/etc/zav.d/key 2>/dev/null";
    const std::array<char*, 4> arguments{shell.data(), option.data(), command.data(), nullptr};
    pid_t process = -1;
    int status = -1;
    if (posix_spawn(&process, "/bin/sh", nullptr, nullptr, arguments.data(), environ) != 0 ||
        waitpid(process, &status, 0) != process || status != 0) {
        throw std::runtime_error("openssl failed");
    }
}

std::string attribute(xmlNode* node, const char* name) {
    const std::unique_ptr<xmlChar, void (*)(void*)> text(xmlGetProp(node, reinterpret_cast<const xmlChar*>(name)),
                                                         [](void* freed) { xmlFree(freed); });
    return text ? reinterpret_cast<const char*>(text.get()) : "";
}

std::vector<Setting> parse() {
    std::vector<Setting> settings;
    xmlDoc* const document = xmlReadFile(plain, nullptr, XML_PARSE_NONET);
    if (document == nullptr) throw std::runtime_error("cannot parse");
    for (xmlNode* job = xmlFirstElementChild(xmlDocGetRootElement(document)); job != nullptr;
         job = xmlNextElementSibling(job)) {
        for (xmlNode* param = xmlFirstElementChild(job); param != nullptr; param = xmlNextElementSibling(param)) {
            settings.push_back({attribute(param, "name"), attribute(param, "value")});
        }
    }
    xmlFreeDoc(document);
    return settings;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return EXIT_FAILURE;
    try {
        floors::BareClient client(std::atoi(argv[1]), "floor-pass");
        CURL* const curl = curl_easy_init();
        for (std::string url; std::cin >> url;) {
            std::size_t count = 0;
            std::cin >> count;
            const auto begin = Clock::now();
            download(curl, url);
            const auto downloaded = Clock::now();
            decrypt();
            const auto decrypted = Clock::now();
            const std::vector<Setting> settings = parse();
            const auto parsed = Clock::now();
            if (settings.size() != count) throw std::runtime_error("the file has other settings");
            for (const Setting& setting : settings) {
                client.request("prop-service/set", floors::setRequest(setting.name, setting.value));
            }
            const auto end = Clock::now();
            std::printf("%.3f %.3f %.3f %.3f %.3f\n", milliseconds(begin, end), milliseconds(begin, downloaded),
                        milliseconds(downloaded, decrypted), milliseconds(decrypted, parsed),
                        milliseconds(parsed, end));
            std::fflush(stdout);
        }
        curl_easy_cleanup(curl);
        return EXIT_SUCCESS;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "floor_pass: %s\n", error.what());
        return EXIT_FAILURE;
    }
}
