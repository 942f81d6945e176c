// The table of rules: one row for each kind of mistake. docs/authoring.md and the tests are made from it.
#pragma once

#include <cstddef>
#include <vector>

#include "lint/Lint.h"

namespace lint {

/// In the order of the table.
enum class RuleId : std::size_t {
    emptyFile,
    tooLarge,
    compressed,
    base64,
    otherCipher,
    wrongKey,
    noKey,
    notWellFormed,
    encoding,
    entities,
    attributeList,
    tooManyNodes,
    tooManyAttributes,
    tooManyNames,
    unknownRoot,
    initialRoot,
    missingVersion,
    formatVersion,
    versionWithoutJobs,
    otherVersion,
    missingProduct,
    product,
    macForm,
    otherPhone,
    mixedItems,
    itemsBehindJob,
    hiddenMix,
    instruction,
    valueAsText,
    itemContent,
    emptyItem,
    lostElement,
    repeatedElement,
    tooManyItems,
    noJobs,
    unknownElement,
    jobNotAllowed,
    unknownJob,
    unknownAttribute,
    misspeltAttribute,
    missingAttribute,
    missingValue,
    unknownCategory,
    duplicateCategory,
    fileVersion,
    neverChosen,
    duplicateVersion,
    mixedVersions,
    firmwareCount,
    firmwareVersion,
    unknownFlag,
    unknownStep,
    unlockStep,
    renewPeriod,
    invalidUrl,
    urlWithoutSlash,
    urlWithoutScheme,
    urlScheme,
    redirectPath,
    urlCredentials,
    urlFragment,
    urlWithoutFile,
    unknownPlaceholder,
    macFolder,
    fileNameChanges,
    unknownKey,
    badValue,
    readOnlyKey,
    refusedKey,
    stateKey,
    lockFlag,
    functionKeyName,
    lockedKey,
    duplicateSetting,
    blanksAround,
    period,
    ownAddress,
    serverUrl,
    serverOverHttp,
    secretOverHttp,
    initialFileName,
    missingFile,
    includeLoop,
    tooManyFiles,
    tooManyPassItems,
    notFollowed,
    notProvisioning,
};

struct Rule {
    const char* id;
    Level level;
    const char* sentence;
    const char* fix;
};

const std::vector<Rule>& rules();

const Rule& ruleOf(RuleId id);

}  // namespace lint
