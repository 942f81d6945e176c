#include "Arguments.h"

namespace zavctl {

namespace {

bool looksLikeOption(const std::string& word) { return word.size() > 1 && word.front() == '-'; }

const CLI::App* commandOf(const CLI::App& app, const std::string& name) {
    for (const CLI::App* const command : app.get_subcommands({})) {
        if (command->get_name() == name) return command;
    }
    return nullptr;
}

std::size_t positionalCount(const CLI::App& command) {
    std::size_t count = 0;
    for (const CLI::Option* const option :
         command.get_options([](const CLI::Option* one) { return one->get_positional(); })) {
        count += static_cast<std::size_t>(option->get_items_expected_max());
    }
    return count;
}

class Splitter {
 public:
    explicit Splitter(const CLI::App& app) : app_(app) {}

    Arguments split(const std::vector<std::string>& words) {
        for (std::size_t at = 0; at < words.size() && result_.error.empty(); ++at) {
            const std::string& word = words[at];
            const std::string* const next = at + 1 < words.size() ? &words[at + 1] : nullptr;
            const CLI::Option* const option = literal_ ? nullptr : optionOf(word);
            if (option != nullptr) {
                if (takeOption(*option, word, next)) ++at;
                afterKey_ = false;
            } else if (!literal_ && word == "--" && !(afterKey_ && next == nullptr)) {
                literal_ = true;
                if (command_ == nullptr) result_.error = "the command must come before \"--\"";
            } else {
                takeWord(word);
                afterKey_ = isValueNext();
            }
        }
        return std::move(result_);
    }

 private:
    const CLI::Option* optionOf(const std::string& word) const {
        if (!looksLikeOption(word) || word == "--") return nullptr;
        const std::string name = word.substr(0, word.find('='));
        const CLI::Option* const own = command_ == nullptr ? nullptr : command_->get_option_no_throw(name);
        return own != nullptr ? own : app_.get_option_no_throw(name);
    }

    /// Returns whether the next word is the option's value. Values are found here because the parser would take a
    /// positional argument for a missing one.
    bool takeOption(const CLI::Option& option, const std::string& word, const std::string* next) {
        const std::size_t equals = word.find('=');
        result_.json = result_.json || word == "--json";
        if (option.get_items_expected_max() == 0) {
            result_.options.push_back(word);
            return false;
        }
        result_.options.push_back(word.substr(0, equals));
        if (equals != std::string::npos) {
            result_.options.push_back(word.substr(equals + 1));
            return false;
        }
        if (next == nullptr) {
            result_.error = word + " needs a value";
        } else {
            result_.options.push_back(*next);
        }
        return true;
    }

    bool isValueNext() const { return result_.command == "set" && result_.positionals.size() == 1; }

    void takeWord(const std::string& word) {
        if (!literal_ && looksLikeOption(word) && !isValueNext()) {
            // Refused here because the parser takes an unknown option that looks like a number for a positional
            // argument.
            result_.error = "unknown option \"" + word + "\"";
        } else if (command_ == nullptr) {
            command_ = commandOf(app_, word);
            if (command_ == nullptr) {
                result_.error = "unknown command \"" + word + "\"";
                return;
            }
            result_.command = word;
            result_.options.push_back(word);
        } else if (result_.positionals.size() == positionalCount(*command_)) {
            result_.error = "unexpected argument \"" + word + "\"";
        } else {
            result_.positionals.push_back(word);
        }
    }

    const CLI::App& app_;
    const CLI::App* command_ = nullptr;
    bool literal_ = false;
    bool afterKey_ = false;  // the previous word was the key of `set`, so that a final "--" is its value
    Arguments result_;
};

}  // namespace

Arguments splitArguments(const CLI::App& app, const std::vector<std::string>& words) {
    return Splitter(app).split(words);
}

}  // namespace zavctl
