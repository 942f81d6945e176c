// Certificates from a server, in PEM or DER, and the phone's own with its key.
#include "Certificates.h"

#include <memory>

#include "fakes/FakeProperties.h"
#include "fuzz/InputFile.h"
#include "fuzz/Promise.h"
#include "fuzz/Targets.h"
#include "security/CertificateFile.h"
#include "security/DeviceIdentity.h"
#include "security/Security.h"

namespace fuzz {

namespace {

void checkIdentity(const std::string& pem) {
    try {
        const zav::DeviceIdentity identity(pem);
        promise(identity.sameAs(identity), "an identity equals itself");
    } catch (const std::runtime_error& e) {
        promise(*e.what() != '\0', "a refusal has a reason");
    }
}

}  // namespace

void certificate(const std::string& input) {
    static zav::Security security(std::make_shared<fakes::FakeProperties>());
    const zav::Certificates parsed = zav::certificatesFromPem(input, zav::Parse::yes);
    const zav::Certificates unparsed = zav::certificatesFromPem(input, zav::Parse::no);
    promise(parsed.others == unparsed.others, "both ways count the same blocks of other kinds");
    promise(parsed.der.size() + parsed.damaged == unparsed.der.size() + unparsed.damaged,
            "both ways count the same certificate blocks");

    const std::string& file = inputFile(input);
    const bool valid = security.checkCertificate(file) == 1;
    const bool single = parsed.der.size() == 1 && parsed.damaged == 0 && parsed.others == 0;
    promise(!valid || single || zav::isValidToday(input), "an accepted file is one certificate");
    promise(zav::CertificateFile(file).certificates.size() >= parsed.der.size(), "shows every certificate");
    const zav::TrustedCertificates trusted(parsed.der);
    promise(trusted.count() <= parsed.der.size() && trusted.store() != nullptr, "certificates can be trusted");
    checkIdentity(input);
}

}  // namespace fuzz
