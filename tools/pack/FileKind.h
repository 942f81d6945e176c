// Which files the phone decrypts. Only a provisioning file goes through the phone's decryption; images, certificates
// and phone books are used as they are downloaded. The content decides, not the name: a provisioning file is an XML
// document whose root element is one that the phone verifies.
#pragma once

#include <cstddef>
#include <string>

namespace pack {

/// The phone refuses larger provisioning files. Bytes, as downloaded.
constexpr std::size_t maxProvisioningFileBytes = 16UL * 1024 * 1024;

enum class FileKind {
    provisioning,
    encrypted,  // begins like the phone's container
    other,
};

struct Classification {
    FileKind kind = FileKind::other;
    std::string root;     // local name of the root element, "" if this is not XML
    std::string problem;  // why the file seems meant to be a provisioning file but is not one; "" if it does not
};

/// `name` is the file's path below the published folder. `bytes` may be just the beginning of the file.
Classification classify(const std::string& name, const std::string& bytes);

/// Whether the bytes begin as an XML document does.
bool isXml(const std::string& bytes);

/// Whether the bytes can be a provisioning file, even a damaged one, or text. What a wrong key makes of a file cannot.
bool isReadable(const std::string& bytes);

}  // namespace pack
