#include "lint/Inspection.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "Core/JobHandlers/ProvisioningFileParser.h"
#include "Core/Pass.h"
#include "catalogue/Catalogue.h"
#include "common/StopSignal.h"
#include "lint/Checks.h"
#include "lint/Decryption.h"
#include "lint/Scan.h"
#include "lint/Settings.h"
#include "lint/Source.h"

namespace lint {

namespace {

using FailureKind = zav::xml::ParseFailure::Kind;

Finding findingOf(const std::string& file, RuleId id, std::string message, const std::string& fix) {
    const Rule& rule = ruleOf(id);
    Finding finding;
    finding.level = rule.level;
    finding.rule = rule.id;
    finding.file = file;
    finding.message = std::move(message);
    finding.fix = fix.empty() ? rule.fix : fix;
    return finding;
}

bool isCompressed(const std::string& bytes) {
    return bytes.rfind("\x1F\x8B", 0) == 0 ||
           bytes.rfind(
               "\xFD"
               "7zXZ",
               0) == 0 ||
           bytes.rfind("BZh", 0) == 0 || bytes.rfind("PK\x03\x04", 0) == 0 || bytes.rfind("\x28\xB5\x2F\xFD", 0) == 0;
}

Source sourceOf(std::string text, const Options& options) {
    const std::shared_ptr<const Settings> settings = options.settings;
    return Source(std::move(text), [settings](const std::string& setting) {
        const propertyservice::Definition* const definition = settings ? settings->find(setting) : nullptr;
        return definition != nullptr && definition->isSecret();
    });
}

constexpr char controlCharacter[] = "remove the character: of control characters XML allows only tabs and line ends";

// What to do about libxml2's commonest messages; empty: nothing in particular.
std::string remedyFor(const std::string& message) {
    constexpr std::array<std::pair<const char*, const char*>, 15> remedies{{
        {"EntityRef", "write &amp; for &"},
        {"Unescaped '<'", "write &lt; for <"},
        {"tag mismatch", "close each element, the inner one first"},
        {"Premature end", "close each element; the file may be cut off"},
        {"redefined", "remove one of the two"},
        {"AttValue", "put the value in quotation marks"},
        {"attributes construct", "separate attributes with blanks, and put values in quotation marks"},
        {"Start tag expected", "the file must begin with its root element"},
        {"Extra content", "a file has one root element"},
        {"Entity '", "write the character itself: XML knows only &amp;, &lt;, &gt;, &quot; and &apos;"},
        {"Double hyphen", "write no -- inside a comment"},
        {"XML declaration allowed only", "remove what stands before <?xml"},
        {"invalid character", controlCharacter},
        {"invalid xmlChar", controlCharacter},
        {"invalid Char", controlCharacter},
    }};
    for (const auto& [part, remedy] : remedies) {
        if (message.find(part) != std::string::npos) return remedy;
    }
    return "";
}

// Positions of elements and attributes. The document is scanned only if there is something to place.
class Placement {
 public:
    Placement(const Document& document, const std::string& bytes, const Options& options)
        : document_(document),
          source_(sourceOf(toUtf8(bytes, document.foreignEncoding()), options)),
          places_(scan(source_.text())) {}

    void place(Finding& finding, const Place& place) const {
        if (place.element == none) return;
        if (places_.elements.size() != document_.elementCount()) {
            finding.line = static_cast<unsigned>(std::max(document_.lineOf(place.element), 0L));
            return;
        }
        const std::size_t offset = offsetOf(place);
        const Position position = source_.positionOf(offset);
        Excerpt excerpt = source_.excerptAt(offset);
        finding.line = position.line;
        finding.column = position.column;
        finding.excerpt = std::move(excerpt.text);
        finding.caret = excerpt.caret;
    }

    std::string lineOf(std::size_t element) const {
        Finding finding;
        place(finding, {element});
        return std::to_string(finding.line);
    }

 private:
    std::size_t offsetOf(const Place& place) const {
        const ElementPlace& element = places_.elements[place.element];
        if (place.isForeign) {
            const auto foreign = std::find_if(places_.foreign.begin(), places_.foreign.end(),
                                              [&](const auto& one) { return one.second > place.element; });
            if (foreign != places_.foreign.end()) return foreign->first;
        }
        if (place.attribute.empty()) return element.name;
        for (std::size_t index = 0; index < element.attributeCount; ++index) {
            const AttributePlace& attribute = places_.attributes[element.firstAttribute + index];
            const std::string name = source_.text().substr(attribute.name, attribute.nameEnd - attribute.name);
            const std::size_t colon = name.find(':');
            const std::string local = colon == std::string::npos ? name : name.substr(colon + 1);
            if (local == place.attribute || name == place.attribute) {
                return place.isValue ? attribute.value : attribute.name;
            }
        }
        return element.name;
    }

    const Document& document_;
    const Source source_;
    const Places places_;
};

class Inspector {
 public:
    Inspector(const std::string& name, const Options& options, const Circumstances& circumstances)
        : name_(name), options_(options), circumstances_(circumstances) {}

    Inspection run(const std::string& bytes) {
        if (std::optional<std::string> text = readable(bytes)) inspectText(*text);
        result_.role = result_.role == Role::byRoot ? circumstances_.role : result_.role;
        return std::move(result_);
    }

 private:
    void add(RuleId rule, const std::string& message, const std::string& fix = "") {
        result_.findings.push_back(findingOf(name_, rule, message, fix));
    }

    // What the phone's XML parser gets; nothing if there is no point in trying.
    std::optional<std::string> readable(const std::string& bytes) {
        using Outcome = Decrypted::Outcome;
        if (bytes.size() > static_cast<std::size_t>(zav::XMLReader::maximumFileSize)) {
            add(RuleId::tooLarge, "The file is larger than 16 MiB");
            return std::nullopt;
        }
        if (bytes.empty()) {
            add(RuleId::emptyFile, "The file is empty");
            return std::nullopt;
        }
        if (isCompressed(bytes)) {
            add(RuleId::compressed, "The file is compressed");
            return std::nullopt;
        }
        Decrypted decrypted = decrypt(bytes, options_.keyFile);
        isEncrypted_ = decrypted.outcome == Outcome::decrypted;
        switch (decrypted.outcome) {
            case Outcome::plain:
            case Outcome::decrypted:
                return std::move(decrypted.text);
            case Outcome::noKey:
                add(RuleId::noKey, "The file is encrypted and was not checked" +
                                       (decrypted.detail.empty() ? "" : ": " + decrypted.detail));
                break;
            case Outcome::base64:
                add(RuleId::base64, "The file is encrypted, but written as base64 text");
                break;
            case Outcome::otherCipher:
                add(RuleId::otherCipher, "The file was encrypted with the options " + decrypted.detail);
                break;
            case Outcome::wrongKey:
                add(RuleId::wrongKey, "The file is encrypted, but not with the key in " + options_.keyFile);
                break;
        }
        return std::nullopt;
    }

    void inspectText(const std::string& text) {
        Document document;
        if (!document.parse(text)) {
            reportFailure(text, document.failure());
            return;
        }
        Checks checks(document, options_, circumstances_);
        checks.isEncrypted = isEncrypted_;
        checkRoot(checks);
        result_.role = checks.role;
        const std::vector<std::string>& roots = zav::verifiableRoots();
        result_.isProvisioningFile = std::find(roots.begin(), roots.end(), document.nameOf(0)) != roots.end();
        result_.version = checks.version;
        if (result_.isProvisioningFile) {
            document.walk();
            checkShape(checks);
            checkAttributes(checks);
            {
                const zav::Pass pass(nullptr, std::make_shared<common::StopSignal>());  // the daemon's code asks for it
                checkJobs(checks);
            }
            result_.items = document.itemCount();
            reportNoJobs(checks);
        }
        finish(checks, text);
    }

    void reportNoJobs(Checks& checks) const {
        const bool hasError = std::any_of(checks.mistakes.begin(), checks.mistakes.end(), [](const Mistake& mistake) {
            return ruleOf(mistake.rule).level == Level::error;
        });
        const std::vector<zav::JobDescription>& jobs = checks.document.jobs();
        const bool isEmptyRoot = jobs.size() == 1 && jobs[0].itemName == jobs[0].name;
        if (!hasError && (jobs.empty() || isEmptyRoot)) checks.add(RuleId::noJobs, {0}, "The file has no job");
    }

    void finish(Checks& checks, const std::string& text) {
        if (checks.mistakes.empty() && checks.links.empty()) return;
        const Placement placement(checks.document, text, options_);
        for (Mistake& mistake : checks.mistakes) {
            if (mistake.before != none) mistake.message += ", in line " + placement.lineOf(mistake.before);
            Finding finding = findingOf(name_, mistake.rule, std::move(mistake.message), mistake.fix);
            placement.place(finding, mistake.place);
            result_.findings.push_back(std::move(finding));
        }
        for (Link& link : checks.links) {
            Finding place;
            place.file = name_;
            placement.place(place, link.place);
            result_.references.push_back({link.kind, std::move(link.url), link.isFetched, std::move(place)});
        }
        std::stable_sort(result_.findings.begin(), result_.findings.end(), [](const Finding& a, const Finding& b) {
            return std::make_pair(a.line, a.column) < std::make_pair(b.line, b.column);
        });
        // What the walk comes to more than once is wrong in the same way each time.
        std::vector<Finding> once;
        for (Finding& finding : result_.findings) {
            const bool isKnown = std::any_of(once.rbegin(), once.rend(), [&](const Finding& other) {
                return other.line == finding.line && other.column == finding.column && other.rule == finding.rule &&
                       other.message == finding.message;
            });
            if (!isKnown) once.push_back(std::move(finding));
        }
        result_.findings = std::move(once);
    }

    void reportFailure(const std::string& text, const zav::xml::ParseFailure& failure) {
        switch (failure.kind) {
            case FailureKind::entities:
                return add(RuleId::entities, failure, text, "The document declares an entity");
            case FailureKind::attributeList:
                return add(RuleId::attributeList, failure, text, "The document declares attributes");
            case FailureKind::nodes:
                return add(RuleId::tooManyNodes, failure, text,
                           "The document has more than " + std::to_string(zav::xml::maximumNodes) + " nodes");
            case FailureKind::attributes:
                return add(RuleId::tooManyAttributes, failure, text,
                           "An element has more than " + std::to_string(zav::xml::maximumAttributes) + " attributes");
            case FailureKind::names:
                return add(RuleId::tooManyNames, failure, text, "The document has too many different names");
            case FailureKind::encoding:
                return reportEncoding(text, failure);
            default:
                return add(RuleId::notWellFormed, failure, text,
                           failure.message.empty() ? "The file is not XML" : failure.message);
        }
    }

    // libxml2 notices bytes that are not UTF-8 some way behind them.
    void reportEncoding(const std::string& text, const zav::xml::ParseFailure& failure) {
        const std::size_t invalid = invalidUtf8(text);
        if (invalid == std::string::npos || failure.message.find("UTF-8") == std::string::npos) {
            return add(RuleId::encoding, failure, text, failure.message);
        }
        addAt(RuleId::encoding, sourceOf(text, options_), invalid,
              "The bytes here are not UTF-8, and no other encoding is declared", "");
    }

    void add(RuleId rule, const zav::xml::ParseFailure& failure, const std::string& text, const std::string& message) {
        // The parser's messages may contain bytes of the file.
        const std::string shown = quoted(message);
        const Source source = sourceOf(toUtf8(text, ""), options_);
        const std::size_t offset = source.offsetOf(failure.line, failure.column);
        const bool isOfTheParser = rule == RuleId::notWellFormed || rule == RuleId::encoding;
        std::string remedy = isOfTheParser ? remedyFor(message) : "";
        if (!remedy.empty() && isTypographicQuote(source.text(), offset))
            remedy = R"(write straight quotation marks: ")";
        addAt(rule, source, offset, shown.substr(1, shown.size() - 2), remedy);
    }

    void addAt(RuleId rule, const Source& source, std::size_t offset, const std::string& message,
               const std::string& fix) {
        Finding finding = findingOf(name_, rule, message, fix);
        const Position position = source.positionOf(offset);
        Excerpt excerpt = source.excerptAt(offset);
        finding.line = position.line;
        finding.column = position.column;
        finding.excerpt = std::move(excerpt.text);
        finding.caret = excerpt.caret;
        result_.findings.push_back(std::move(finding));
    }

    const std::string& name_;
    const Options& options_;
    const Circumstances& circumstances_;
    bool isEncrypted_ = false;
    Inspection result_;
};

}  // namespace

Inspection inspect(const std::string& name, const std::string& bytes, const Options& options,
                   const Circumstances& circumstances) {
    return Inspector(name, options, circumstances).run(bytes);
}

}  // namespace lint
