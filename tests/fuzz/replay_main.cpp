// SPDX-License-Identifier: Apache-2.0
// SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

// Runs a fuzz target over files instead of generated inputs, so that the committed corpora replay
// as ordinary tests with any compiler. Arguments are files or directories (every regular file
// inside, in name order). Fails when nothing was replayed: an empty run would hide a wrong path.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    LLVMFuzzerInitialize(&argc, &argv);

    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
                if (entry.is_regular_file(error)) {
                    files.push_back(entry.path());
                }
            }
        } else if (std::filesystem::is_regular_file(path, error)) {
            files.push_back(path);
        } else {
            (void)std::fprintf(stderr, "no such input: %s\n", argv[i]);
            return 1;
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        (void)std::fprintf(stderr, "no inputs to replay\n");
        return 1;
    }

    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                      std::istreambuf_iterator<char>());
        if (!in.eof() && in.fail()) {
            (void)std::fprintf(stderr, "cannot read %s\n", file.c_str());
            return 1;
        }
        // libFuzzer never hands over a null pointer, not even for an empty input.
        static const uint8_t emptyInput = 0;
        const uint8_t* data =
            bytes.empty() ? &emptyInput : reinterpret_cast<const uint8_t*>(bytes.data());
        LLVMFuzzerTestOneInput(data, bytes.size());
    }
    (void)std::printf("replayed %zu inputs\n", files.size());
    return 0;
}
