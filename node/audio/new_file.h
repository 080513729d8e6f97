// Files that appear under their names only when they are complete.
//
// A new file is hidden and locked while it is written. A program that is killed leaves it behind,
// without the lock; the next one removes it. Each object belongs to one thread at a time.
#pragma once

#include <functional>
#include <string>

#include "node/audio/descriptor.h"

namespace qv::node {

class NewFile {
  public:
    // Creates the hidden file in that folder. If this fails, error() is not empty.
    NewFile(const std::string& folder, const std::string& name);
    // Removes it, unless it has got its name.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Open for reading and writing. Negative after an error.
    int descriptor() const { return descriptor_.number(); }
    const std::string& error() const { return error_; }
    // Where the file is to be, and where it is once it is published. The caller may take it then.
    std::string& path() { return path_; }

    // Appends the text. Returns whether nothing has failed so far.
    bool write(const std::string& text);
    // Has the system write the contents to the disk. Returns whether nothing has failed so far.
    bool force();
    // Gives the complete file its name. If another file has it, `replace` says whether that file is
    // replaced; otherwise the new file gets the name with a number. Returns whether nothing has
    // failed so far.
    bool publish(bool replace);
    // Has the system write the new name to the disk. Returns 0 or the error number. Needs no
    // memory.
    int force_name() const;

  private:
    bool fail(int error);
    bool create();

    const std::string folder_;
    const std::string name_;
    std::string path_;
    std::string hidden_path_;
    Descriptor descriptor_;
    bool published_ = false;
    std::string error_;
};

// Calls `make` with "a.wav", then with "a-2.wav", "a-3.wav" and so on, while it returns that
// another file has the name. Returns what it returned last: 0 or the error number.
int under_free_name(const std::string& name, const std::function<int(const std::string&)>& make);

// Renames a file. Without `replace`, an existing file stays. Returns 0 or the error number.
int rename_file(const std::string& from, const std::string& to, bool replace);

// Removes the hidden files that killed programs have left in the folder. Those of programs that
// still run stay.
void remove_abandoned_files(const std::string& folder);

}  // namespace qv::node
