// The files of all calls: the folder, the threads that write and work on them, their names, the
// flushes to the disk, and what becomes of files that are not complete when the program ends.
//
// Belongs to the thread of the program's event loop, except for what any thread may call.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/background_store.h"
#include "node/audio/disk_sync.h"
#include "node/audio/file_names.h"
#include "node/audio/task_thread.h"
#include "node/report/figures.h"
#include "node/report/line_report.h"

namespace qv::node {

class FileOutput {
  public:
    struct Options {
        std::string folder;
        std::size_t max_open_files = 1;
        BackgroundStore::Options store{};
        FileNames::Options names{};
        double sync_s = 0;  // Interval between flushes to the disk. 0: none.
    };

    // The lines must outlive this object.
    FileOutput(const Options& options, LineReport& lines);

    // Creates the folder if it is missing, and repairs what killed runs have left there. Returns
    // why it cannot be used, or an empty text.
    std::string open();
    // Starts the threads. Call it after open() and before the functions below.
    void start();

    // Gives the calls their file names. Any thread may call it.
    FileNames& names() { return *names_; }
    // A store for another thread.
    std::unique_ptr<BackgroundStore> share() { return store_->share(); }
    // Works on complete files.
    TaskThread& tasks() { return *tasks_; }
    // Files of killed runs.
    const std::vector<LeftoverFile>& leftovers() const { return leftovers_; }

    // Any thread may call these: the name of a small file that is about to be written, a file that
    // stays a WAV file, the name of a file that has been removed.
    void note_document(const std::string& name);
    void report_not_converted(const std::string& path, const std::string& why);
    void forget_name(const std::string& name) { store_->forget_name(name); }

    // Reports, once, that a flush to the disk has failed. Call it once a second.
    void report_sync();

    // Waits a moment for files that are being completed, and calls `take_note` when the writer had
    // that moment. Returns whether all of them are complete.
    template <typename TakeNote>
    bool complete(TakeNote take_note) {
        const auto until = next_moment();
        const bool written = store_->wait(until);
        take_note();
        return written && tasks_->wait(until);
    }
    // Call it when all files are complete. Waits a moment for the last flush to the disk, if there
    // is one. Returns whether it has ended.
    bool synced();
    // What the end of the program waits for.
    std::string waits_for() const;
    // Gives up what the disk has not taken, and reports it.
    void give_up();

    void add_to(NodeFigures& figures) const;
    // Whether a flush or a conversion failed, or files were given up.
    bool failed() const { return failed_ || not_converted_; }

  private:
    static std::chrono::steady_clock::time_point next_moment();

    const Options options_;
    LineReport& lines_;
    std::unique_ptr<WavFolder> folder_;  // Null once the writer thread has it.
    std::unique_ptr<BackgroundStore> store_;
    std::unique_ptr<TaskThread> tasks_;
    std::unique_ptr<FileNames> names_;
    std::unique_ptr<DiskSync> disk_sync_;  // Null unless requested.
    std::vector<LeftoverFile> leftovers_;
    std::atomic<std::uint64_t> saved_documents_{0};  // Timelines and sidecars.
    std::atomic<bool> not_converted_{false};         // A file; any thread may set it.
    bool sync_failed_ = false;
    bool syncing_ = false;  // The last flush goes on.
    bool failed_ = false;
};

}  // namespace qv::node
