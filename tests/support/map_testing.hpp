// Shared by the tree tests: a host with the module's structures defined, the trees behind
// one face (tree_driver.hpp), and the error texts a tree raised.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/testing.hpp"
#include "support/tree_driver.hpp"

namespace maptest {

class TreeTest : public ::testing::Test {
protected:
    TreeTest() { flux::define_structures(); }
    zok::Host host;
};

// The texts of the error messages raised and returned since the last call, each checked
// to be the host's text message.
inline std::vector<std::string> raised_errors(zok::Host& host) {
    std::vector<std::string> texts;
    for (const zok::Message& m : host.messages()) {
        EXPECT_EQ(m.code, ZOK_MSG_TEXT);
        EXPECT_EQ(m.action, ZOK_ACTION_ERROR);
        texts.push_back(m.text);
    }
    host.clear_messages();
    return texts;
}

} // namespace maptest
