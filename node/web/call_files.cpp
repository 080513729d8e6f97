#include "node/web/call_files.h"

#include "node/audio/file_names.h"

namespace qv::node::web {

namespace {

std::string name_in_folder(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::string kind_of(const std::string& name) {
    const std::string ending = name.substr(name.rfind('.') + 1);
    return ending == "svg" ? "timeline" : ending == "json" ? "sidecar" : ending;
}

// What follows the stem of the call's files tells the side.
std::string side_of(const std::string& name, const std::string& stem) {
    const std::string rest = name.substr(std::min(stem.size(), name.size()));
    for (const Side side : BOTH_SIDES) {
        if (rest.find(std::string("-") + name_of(side)) != std::string::npos) {
            return name_of(side);
        }
    }
    return "both";
}

}  // namespace

std::vector<std::string> file_names_of(const FinishedCall& call) {
    std::vector<std::string> names;
    for (const FileReport& file : call.files) {
        names.push_back(name_in_folder(file.path));
    }
    if (!call.sidecar.empty()) {
        names.push_back(name_in_folder(call.sidecar));
    }
    if (call.has_timeline && !call.file_stem.empty()) {
        names.push_back(timeline_file_name(call.file_stem));
    }
    return names;
}

std::vector<CallFile> files_of(const FinishedCall& call, const FileFolder& folder) {
    std::vector<CallFile> files;
    for (const std::string& name : file_names_of(call)) {
        const std::int64_t bytes = folder.size_of(name);
        if (bytes >= 0) {
            files.push_back({name, kind_of(name), side_of(name, call.file_stem), bytes});
        }
    }
    return files;
}

}  // namespace qv::node::web
