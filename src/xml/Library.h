// Initialises libxml2 for the process, and cleans it up when the last Library is destroyed. main holds one Library, and
// so does every XMLReader. Threads: any.
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
