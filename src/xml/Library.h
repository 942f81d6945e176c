// libxml2 as a whole: set up once before any thread uses it, cleaned up when nothing uses it any more.
//
// The entry holds one Library for the life of the process, and every XMLReader holds one. libxml2's clean-up resets
// state of the whole process, so it runs only when the last holder goes. Any thread may create and destroy holders.
#pragma once

namespace zav::xml {

class Library {
 public:
    Library();
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

}  // namespace zav::xml
