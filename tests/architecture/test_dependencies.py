"""The dependency rules of ARCHITECTURE.md, checked against the includes of every source."""

import re
import unittest

import tree

# Each platform library and what it may know of the others.
PLATFORM = {
    "debug": set(),
    "common": {"debug"},
    "ipc": {"debug", "common"},
    "propertyprotocol": set(),
    "propertyapi": {"debug", "common", "ipc", "propertyprotocol"},
    "security": {"debug", "common", "ipc", "propertyapi"},
    "http": {"debug", "common", "ipc", "propertyapi", "security"},
    "version": {"debug", "common"},
}

# Headers that any library may include: they need nothing but the standard library.
EVERYWHERE = {"common/ThreadSafety.h", "common/ByteSet.h"}

# A library's headers and the only places that may include them.
FENCED = {
    r"mosquitto.*\.h|mqtt_protocol\.h": r"platform/ipc/src/.*",
    r"curl/.*": r"platform/http/src/.*|src/main\.cpp",
    r"libxml/.*": r"(src/xml|tools/lint)/.*\.cpp",
    r"pcre2.*\.h": r"src/Core/JobHandlers/RegularExpression\.cpp",
    r"sqlite3\.h": r"services/property-service/.*",
    r"openssl/.*": r"platform/(http|security)/src/.*|tools/pack/.*",
    r"CLI/.*": r"services/.*|tools/.*",
}

# What tells beforehand what the daemon will do runs the daemon's own code and the property service's own rules instead
# of copies of them. No other file of services/ and tools/ includes anything of src/ or of the property service.
FORETELLING = [
    (r"tools/zavctl/Doctor\w+\.cpp",
     r"Core/(GlobalConfig|Pass|Utils|JobHandlers/ProvisioningFileParser)\.h|xml/XMLParser\.h"),
    (r"tools/(explain|lint)/.*", r"(Core|xml|catalogue|service|store)/.*"),
]

# The daemon's files by rank: a file includes its own rank and those before it.
RANKS = [
    r"xml/.*|Core/(Constants|GlobalConfig|Utils|Pass|Predecessor|ProgressPublisher|ProvisioningTimer"
    r"|ProvisioningStatusReporter|Init)\.\w+"
    r"|Core/ProvisioningWatchdog/(ProgressReporter|IProvisioningWorker|DeferredWrites)\.\w+",
    r"Core/JobHandlers/.*",
    r"Core/ProvisioningWatchdog/ProvisioningWorker\.\w+",
    r"Core/(Dispatcher|NetworkMediator)\.\w+",
    r"main\.cpp",
]
# The factory makes the worker that a redirect needs.
BACK_EDGE = "Core/JobHandlers/JobHandlerFactory.cpp"


def rank(name):
    for index, pattern in enumerate(RANKS):
        if re.fullmatch(pattern, name):
            return index
    return None


def platform_library(name):
    match = re.match(r"platform/(\w+)/", name)
    return match and match.group(1)


def may_foretell(name, target):
    return any(re.fullmatch(files, name) and re.fullmatch(headers, target) for files, headers in FORETELLING)


class DependencyRules(unittest.TestCase):
    def test_platform_libraries_know_only_those_below_them(self):
        wrong = []
        for name in tree.sources("platform"):
            library = platform_library(name)
            self.assertIn(library, PLATFORM, f"{name}: a library that has no rule")
            for kind, target in tree.includes(name):
                other = target.split("/")[0]
                if target in EVERYWHERE:
                    continue
                if kind == '"' and other in PLATFORM and other != library and other not in PLATFORM[library]:
                    wrong.append(f"{name} includes {target}")
        self.assertEqual(wrong, [])

    def test_a_header_for_every_library_needs_none_of_them(self):
        kinds = {kind for header in EVERYWHERE for kind, _ in tree.includes(f"platform/common/include/{header}")}
        self.assertEqual(kinds, {"<"})

    def test_the_platform_knows_nothing_of_what_stands_on_it(self):
        wrong = [f"{name} includes {target}"
                 for name in tree.sources("platform")
                 for kind, target in tree.includes(name)
                 if kind == '"' and re.match(r"(Core|xml|services|tools|lab|tests)/", target)]
        self.assertEqual(wrong, [])

    def test_services_and_tools_use_nothing_inside_the_daemon(self):
        wrong = [f"{name} includes {target}"
                 for name in tree.sources("services", "tools", "lab")
                 for kind, target in tree.includes(name)
                 if kind == '"' and re.match(r"(Core|xml|src|tests)/", target)
                 and not may_foretell(name, target)]
        self.assertEqual(wrong, [])

    def test_the_parts_of_the_property_service_include_downwards(self):
        below = {"catalogue": {"catalogue"}, "store": {"store"}, "service": {"catalogue", "store", "service"}}
        wrong = []
        for name in tree.sources("services/property-service"):
            part = re.match(r"services/property-service/(?:(\w+)/)?", name).group(1)
            for kind, target in tree.includes(name):
                other = target.split("/")[0]
                if kind == '"' and part and other in below and other not in below[part]:
                    wrong.append(f"{name} includes {target}")
        self.assertEqual(wrong, [])

    def test_tools_and_services_do_not_include_each_other(self):
        wrong = [f"{name} includes {target}"
                 for place, others in (("tools", r"(catalogue|store|service)/"),
                                     ("services", r"(zavctl|explain|lint|pack)/"))
                 for name in tree.sources(place)
                 for kind, target in tree.includes(name)
                 if kind == '"' and re.match(others, target) and not may_foretell(name, target)]
        self.assertEqual(wrong, [])

    def test_fenced_libraries_are_included_in_their_place_only(self):
        wrong = []
        for name in tree.sources("src", "platform", "services", "tools"):
            for _, target in tree.includes(name):
                for headers, place in FENCED.items():
                    if re.fullmatch(headers, target) and not re.fullmatch(place, name):
                        wrong.append(f"{name} includes {target}")
        self.assertEqual(wrong, [])

    def test_the_daemon_includes_downwards(self):
        wrong = []
        for name in tree.sources("src"):
            own = name.removeprefix("src/")
            self.assertIsNotNone(rank(own), f"{name}: a file that has no rank")
            for kind, target in tree.includes(name):
                if kind == '"' and rank(target) is not None and rank(target) > rank(own) and own != BACK_EDGE:
                    wrong.append(f"{name} includes {target}")
        self.assertEqual(wrong, [])

    def test_nobody_else_includes_a_librarys_own_headers(self):
        wrong = [f"{name} includes {target}"
                 for name in tree.sources("src", "services", "tools")
                 for kind, target in tree.includes(name)
                 if kind == '"' and re.match(r"platform/", target)]
        self.assertEqual(wrong, [])

    def test_headers_open_no_namespace_for_others(self):
        wrong = [name for name in tree.sources("src", "platform", "services", "tools")
                 if name.endswith(".h") and re.search(r"^\s*using namespace", (tree.ROOT / name).read_text(), re.M)]
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
