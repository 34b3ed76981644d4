// Captures what the code under test writes to stdout, as lines. GoogleTest reports failed
// assertions on stdout too, so whatever was captured is echoed to stderr once a test has failed.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

class OutputCapture {
  public:
    OutputCapture() { testing::internal::CaptureStdout(); }
    ~OutputCapture() {
        if (!taken_) release();
    }
    std::vector<std::string> lines() {
        std::istringstream text(release());
        std::vector<std::string> out;
        for (std::string line; std::getline(text, line);) out.push_back(line);
        return out;
    }

  private:
    std::string release() {
        taken_ = true;
        std::string text = testing::internal::GetCapturedStdout();
        if (testing::Test::HasFailure()) std::cerr << text;
        return text;
    }
    bool taken_ = false;
};

using Lines = std::vector<std::string>;

// Whether text holds part; either way the message shows the whole text.
inline testing::AssertionResult contains(const std::string& text, const std::string& part) {
    return (text.find(part) != std::string::npos ? testing::AssertionSuccess()
                                                 : testing::AssertionFailure())
           << "\"" << part << "\" in:\n"
           << text;
}
