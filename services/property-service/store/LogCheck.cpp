#include "store/LogCheck.h"

#include <cstdint>
#include <fstream>
#include <utility>
#include <vector>

namespace propertyservice {

namespace {

// https://www.sqlite.org/fileformat2.html#the_write_ahead_log
constexpr std::size_t headerSize = 32;
constexpr std::size_t frameHeaderSize = 24;
constexpr std::uint32_t magicLittleEndian = 0x377f0682;
constexpr std::uint32_t magicBigEndian = 0x377f0683;
constexpr std::uint32_t largestPage = 65536;

class Bytes {
 public:
    explicit Bytes(std::size_t size) : bytes_(size) {}
    bool readFrom(std::istream& file) {
        file.read(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
        return static_cast<std::size_t>(file.gcount()) == bytes_.size();
    }
    std::uint32_t number(std::size_t at, bool bigEndian = true) const {
        std::uint32_t number = 0;
        for (std::size_t index = 0; index < 4; ++index) {
            number = number << 8U | static_cast<unsigned char>(bytes_[at + (bigEndian ? index : 3 - index)]);
        }
        return number;
    }
    std::size_t size() const { return bytes_.size(); }

 private:
    std::vector<char> bytes_;
};

struct Checksum {
    std::uint32_t first = 0;
    std::uint32_t second = 0;

    void add(const Bytes& bytes, std::size_t begin, std::size_t end, bool bigEndian) {
        for (std::size_t at = begin; at < end; at += 8) {
            first += bytes.number(at, bigEndian) + second;
            second += bytes.number(at + 4, bigEndian) + first;
        }
    }
    bool is(const Bytes& bytes, std::size_t at) const {
        return first == bytes.number(at) && second == bytes.number(at + 4);
    }
};

using Salt = std::pair<std::uint32_t, std::uint32_t>;

Salt saltAt(const Bytes& bytes, std::size_t at) { return {bytes.number(at), bytes.number(at + 4)}; }

}  // namespace

std::size_t lostCommits(const std::string& log) {
    std::ifstream file(log, std::ios::binary);
    Bytes header(headerSize);
    if (!header.readFrom(file)) return 0;
    const std::uint32_t magic = header.number(0);
    const std::uint32_t pageSize = header.number(8);
    const bool bigEndian = magic == magicBigEndian;
    if ((!bigEndian && magic != magicLittleEndian) || pageSize == 0 || pageSize > largestPage || pageSize % 8 != 0) {
        return 0;
    }
    Checksum sum;
    sum.add(header, 0, 24, bigEndian);
    bool isIntact = sum.is(header, 24);
    std::size_t lost = 0;
    bool hasFramesBehind = false;
    Bytes frame(frameHeaderSize + pageSize);
    if (!frame.readFrom(file)) return 0;
    const Salt salt = isIntact ? saltAt(header, 16) : saltAt(frame, 8);
    do {
        // Frames with another salt are left from before the log was last restarted.
        const bool isOfThisLog = saltAt(frame, 8) == salt;
        hasFramesBehind = hasFramesBehind || (!isIntact && isOfThisLog);
        sum.add(frame, 0, 8, bigEndian);
        sum.add(frame, frameHeaderSize, frame.size(), bigEndian);
        isIntact = isIntact && isOfThisLog && sum.is(frame, 16);
        const bool isCommit = frame.number(4) != 0;
        if (!isIntact && isOfThisLog && isCommit) ++lost;
    } while (frame.readFrom(file));
    return hasFramesBehind ? lost : 0;
}

}  // namespace propertyservice
