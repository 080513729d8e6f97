#include "node/outputs/file_output.h"

#include <chrono>
#include <filesystem>
#include <system_error>
#include <utility>

#include "node/audio/new_file.h"
#include "node/outputs/patience.h"
#include "node/report/text.h"

namespace qv::node {

FileOutput::FileOutput(const Options& options, LineReport& lines)
    : options_(options),
      lines_(lines),
      folder_(std::make_unique<WavFolder>(options.folder, options.max_open_files,
                                          options.names.overwrite)) {}

std::string FileOutput::open() {
    const std::string error = folder_->prepare();
    if (error.empty()) {
        leftovers_ = folder_->recover();
        remove_abandoned_files(options_.folder);
    }
    return error.empty() ? error : "cannot write to folder " + options_.folder + ": " + error;
}

void FileOutput::start() {
    const std::uint64_t max_files = options_.names.max_files;
    if (max_files != 0) {
        folder_->limit_files(max_files);
    }
    store_ = std::make_unique<BackgroundStore>(std::move(folder_), options_.folder, options_.store);
    tasks_ = std::make_unique<TaskThread>();
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(options_.folder, error);
         !error && !options_.names.overwrite && entry != end; entry.increment(error)) {
        store_->add_name(wav_name(entry->path().filename()));
    }
    names_ = std::make_unique<FileNames>(
        *store_, options_.names,
        [this] { return store_->figures().created_files + saved_documents_; },
        [this, max_files] {
            lines_.say("too many files", "with further calls there could be more than " +
                                             grouped(max_files) +
                                             " (--max-files): such calls are not written");
        });
    if (options_.sync_s > 0) {
        disk_sync_ =
            std::make_unique<DiskSync>(std::chrono::duration<double>(options_.sync_s),
                                       [folder = options_.folder] { return sync_folder(folder); });
    }
}

void FileOutput::note_document(const std::string& name) {
    ++saved_documents_;
    store_->add_name(name);
}

void FileOutput::report_not_converted(const std::string& path, const std::string& why) {
    not_converted_ = true;
    lines_.say("not converted", path + ": " + why + "; it is still a WAV file");
}

// Reported once, because every write fails while a folder is missing.
void FileOutput::report_sync() {
    const std::string error = disk_sync_ != nullptr ? disk_sync_->take_error() : std::string();
    if (!error.empty() && !std::exchange(sync_failed_, true)) {
        failed_ = true;
        lines_.say("not brought to the disk", options_.folder + ": " + error);
    }
}

std::chrono::steady_clock::time_point FileOutput::next_moment() {
    return std::chrono::steady_clock::now() + Patience::A_MOMENT;
}

bool FileOutput::synced() {
    syncing_ = disk_sync_ != nullptr;
    return !syncing_ || disk_sync_->finish(next_moment());
}

std::string FileOutput::waits_for() const {
    const BackgroundStore::Figures files = store_->figures();
    if (syncing_) {
        return "the last flush to the disk";
    }
    if (files.incomplete_files == 0) {
        return "the work on complete files";
    }
    return "the disk: " + grouped(files.waiting_bytes) + " bytes for " +
           counted(files.incomplete_files, "file");
}

void FileOutput::give_up() {
    failed_ = true;
    if (syncing_) {
        lines_.say("not brought to the disk",
                   options_.folder + ": the last flush did not end in time");
        return;
    }
    const BackgroundStore::Figures files = store_->figures();
    if (files.incomplete_files != 0) {
        lines_.say("files given up", grouped(files.waiting_bytes) +
                                         " bytes wait for the disk, which does not take them");
    }
    if (tasks_->waiting() != 0) {
        lines_.say("work given up", counted(tasks_->waiting(), "file") +
                                        " not converted, without digest or not described");
    }
    store_->abandon("the disk did not take all of it before the end");
    tasks_->abandon();
}

void FileOutput::add_to(NodeFigures& figures) const {
    const BackgroundStore::Figures files = store_->figures();
    figures.open_files = files.open_files;
    figures.waiting_bytes = files.waiting_bytes;
    figures.dropped_bytes = files.dropped_bytes;
    figures.calls_not_written = names_->refused_calls();
}

}  // namespace qv::node
