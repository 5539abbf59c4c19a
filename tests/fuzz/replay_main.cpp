// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Runs a fuzz target over files instead of generated inputs, so that the committed corpora replay
// as ordinary tests with any compiler. Arguments are files or directories (every regular file
// inside, in name order). Fails when nothing was replayed: an empty run would hide a wrong path.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    LLVMFuzzerInitialize(&argc, &argv);
    std::vector<fs::path> files;
    for (int i = 1; i < argc; ++i) {
        if (fs::is_directory(argv[i])) {
            std::copy_if(fs::directory_iterator(argv[i]), fs::directory_iterator(),
                         std::back_inserter(files),
                         [](const fs::directory_entry& entry) { return entry.is_regular_file(); });
        } else {
            files.emplace_back(argv[i]);
        }
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        // libFuzzer never hands over a null pointer, not even for an empty input.
        std::vector<uint8_t> bytes(1);
        bytes.insert(bytes.end(), std::istreambuf_iterator<char>(in),
                     std::istreambuf_iterator<char>());
        if (!fs::is_regular_file(file) || (!in.eof() && in.fail())) {
            (void)std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(bytes.data() + 1, bytes.size() - 1);
    }
    (void)std::printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
