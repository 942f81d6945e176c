// Runs each target on each file of its corpus. A sanitizer or a broken promise ends the program: the last line of
// GoogleTest names the target and the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/Targets.h"

namespace {

struct Input {
    fuzz::Target target;
    std::string file;
};

std::ostream& operator<<(std::ostream& stream, const Input& input) {
    return stream << input.target.name << "/" << input.file;
}

std::vector<std::string> corpusOf(const fuzz::Target& target) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(std::string(CORPUS) + "/" + target.name)) {
        files.push_back(entry.path().filename().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<Input> allInputs() {
    std::vector<Input> inputs;
    for (const fuzz::Target& target : fuzz::targets) {
        for (const std::string& file : corpusOf(target)) inputs.push_back({target, file});
    }
    return inputs;
}

std::string nameOf(const testing::TestParamInfo<Input>& info) {
    std::string name = std::string(info.param.target.name) + "_" + info.param.file;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

class CorpusTest : public testing::TestWithParam<Input> {};

TEST_P(CorpusTest, KeepsItsPromises) {
    const auto& [target, name] = GetParam();
    std::ifstream file(std::string(CORPUS) + "/" + target.name + "/" + name, std::ios::binary);
    ASSERT_TRUE(file);
    target.run({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
}

INSTANTIATE_TEST_SUITE_P(Inputs, CorpusTest, testing::ValuesIn(allInputs()), nameOf);

TEST(CorporaTest, EveryTargetHasInputs) {
    for (const fuzz::Target& target : fuzz::targets) EXPECT_GT(corpusOf(target).size(), 3U) << target.name;
}

TEST(CorporaTest, EveryTargetTakesTheEmptyInput) {
    for (const fuzz::Target& target : fuzz::targets) target.run("");
}

}  // namespace
