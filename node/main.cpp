// quorvane-node: a media node that writes the audio of calls to WAV files.
#include <exception>
#include <iostream>

#include "node/application.h"
#include "node/options.h"

int main(int argc, char** argv) {
    using namespace qv::node;
    try {
        Options options;
        if (const auto exit_code = parse_options(argc, argv, options)) {
            return *exit_code;
        }
        return Application(options, std::cerr).run();
    } catch (const std::exception& error) {
        std::cerr << "quorvane-node: " << error.what() << std::endl;
        return EXIT_TROUBLE;
    }
}
