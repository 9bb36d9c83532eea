// The main() of a fuzz target built without libFuzzer: it replays the files,
// and every file of the directories, it is given, as CI does with the seeds
// and the inputs that once failed.  Included last by each target.
#pragma once

#ifndef OCTUNNEL_LIBFUZZER
#include <filesystem>
#include <fstream>
#include <iostream>
#include <vector>

int main(int argc, char **argv)
{
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto &e : std::filesystem::directory_iterator(argv[i]))
                if (e.is_regular_file())
                    files.push_back(e.path());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto &f : files) {
            std::ifstream in(f, std::ios::binary);
            std::string bytes((std::istreambuf_iterator<char>(in)), {});
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
            ++replayed;
        }
    }
    std::cout << replayed << " inputs replayed\n";
    return 0;
}
#endif
