#include "security/TrustedCertificates.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BundleFile.h"
#include "common/TemporaryFolder.h"
#include "fakes/TestAuthority.h"

namespace {

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
using Context = std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)>;

Certificate parsed(const std::string& pem) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> file(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                         &BIO_free);
    return {PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr), &X509_free};
}

std::string derOf(X509* certificate) {
    std::string der(static_cast<std::size_t>(i2d_X509(certificate, nullptr)), '\0');
    auto* at = reinterpret_cast<unsigned char*>(der.data());
    i2d_X509(certificate, &at);
    return der;
}

// Two threads look for the same subject in a store that has not parsed it: both must find it, though only one adds it.
void lookUpByTwoThreads(const std::function<std::unique_ptr<zav::TrustedCertificates>()>& make, X509* certificate) {
    std::atomic<int> found{0};
    constexpr int rounds = 300;
    for (int round = 0; round < rounds; ++round) {
        const auto trusted = make();
        X509_STORE* const store = trusted->store();
        std::atomic<int> waiting{2};
        const auto look = [&] {
            const Certificate own(X509_dup(certificate), &X509_free);
            const Context context(X509_STORE_CTX_new(), &X509_STORE_CTX_free);
            X509_STORE_CTX_init(context.get(), store, nullptr, nullptr);
            --waiting;
            while (waiting > 0) std::this_thread::yield();
            X509_OBJECT* const object =
                X509_STORE_CTX_get_obj_by_subject(context.get(), X509_LU_X509, X509_get_subject_name(own.get()));
            if (object != nullptr) ++found;
            X509_OBJECT_free(object);
        };
        std::thread other(look);
        look();
        other.join();
    }
    EXPECT_EQ(found, 2 * rounds);
}

TEST(TrustedCertificates, ThreadsThatFirstNeedTheSameOneBothFindIt) {
    const Certificate certificate = parsed(fakes::TestAuthority().certificate());
    const std::vector<std::string> ders{derOf(certificate.get())};
    lookUpByTwoThreads([&] { return std::make_unique<zav::TrustedCertificates>(ders); }, certificate.get());
}

TEST(TrustedCertificates, ThreadsThatFirstNeedTheSameOneOfAFileBothFindIt) {
    const fakes::TestAuthority authority;
    const Certificate certificate = parsed(authority.certificate());
    const common::TemporaryFolder folder("zav-test");
    const std::string path = folder.path() + "/bundle.pem";
    std::ofstream(path) << authority.certificate();
    const auto bundle = std::make_shared<const zav::BundleFile>(path, 100'000);
    const std::vector<std::string> none;
    lookUpByTwoThreads([&] { return std::make_unique<zav::TrustedCertificates>(bundle, none); }, certificate.get());
}

}  // namespace
