// quorvane-node: a media node that writes the audio of calls to WAV files.
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "node/application.h"
#include "node/options.h"

namespace {

// Closed standard descriptors would be given to files and sockets, and lines would go there.
void open_standard_descriptors() {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", O_RDWR);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        ::close(descriptor);
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qv::node;
    open_standard_descriptors();
    try {
        Options options;
        if (const auto exit_code = parse_options(argc, argv, options)) {
            return *exit_code;
        }
        return run_media_node(options, std::cerr);
    } catch (const std::exception& error) {
        std::cerr << "quorvane-node: " << error.what() << std::endl;
        return EXIT_TROUBLE;
    }
}
