#pragma once

#include "ConfigFileParser.h"
#include "JournalCapture.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <json/json.h>
#include <sstream>
#include <string>

/// Gives each test a folder of its own, an empty entry list and an empty journal.
class BoardTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = std::filesystem::temp_directory_path() / "korvaneinfod-unit-XXXXXX";
        folder = mkdtemp(pattern.data());
        ConfigFileParser::getInstance()->entries.clear();
        journal::take();
    }

    void TearDown() override { std::filesystem::remove_all(folder); }

    /// Writes a file into the test's folder and returns its path.
    std::string file(const std::string& name, const std::string& bytes) const {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return folder / name;
    }

    static std::string bytesOf(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    static Json::Value json(const std::string& text) {
        Json::Value value;
        std::istringstream(text) >> value;
        return value;
    }

    std::filesystem::path folder;
};
