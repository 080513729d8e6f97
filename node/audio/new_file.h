// Files that appear under their names only when they are complete.
//
// A new file is hidden and locked while it is written. A program that is killed leaves it behind,
// without the lock; the next one removes it. Each object belongs to one thread at a time.
#pragma once

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

    // Appends the text. Returns whether nothing has failed so far.
    bool write(const std::string& text);
    // Has the system write it to the disk. Returns whether nothing has failed so far.
    bool force();
    // Gives the complete file its name. With `replace`, an existing file of that name is replaced;
    // without, this is an error. Returns whether nothing has failed so far.
    bool publish(bool replace);

  private:
    bool fail(int error);
    bool create();

    std::string path_;
    std::string hidden_path_;
    Descriptor descriptor_;
    bool published_ = false;
    std::string error_;
};

// Renames a file. Without `replace`, an existing file stays. Returns 0 or the error number.
int rename_file(const std::string& from, const std::string& to, bool replace);

// Removes the hidden files that killed programs have left in the folder. Those of programs that
// still run stay.
void remove_abandoned_files(const std::string& folder);

}  // namespace qv::node
