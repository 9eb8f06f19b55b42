#include <gtest/gtest.h>

#include <memory>
#include <regex>

#include "commons/exceptions.h"

using namespace velmo;

namespace {

Exc<&SshConnectionFault> innerFault() { return VELMO_EXC(SshConnectionFault); }

}  // namespace

TEST(Exceptions, MessageFeedingAndCatchingByTag) {
    try {
        throw VELMO_EXC(SudoNotAllowed) % "alice" % "src.example";
    } catch (const Exc<&SudoNotFound>&) {
        FAIL() << "caught by the wrong tag";
    } catch (const Exc<&SudoNotAllowed>& e) {
        EXPECT_STREQ("sudo is not allowed for user alice on host src.example.", e.what());
        EXPECT_EQ("SudoNotAllowed", e.code());
        EXPECT_EQ(3, e.severity());
        EXPECT_NE(std::string::npos, e.context().find("MessageFeedingAndCatchingByTag"));
        EXPECT_NE(std::string::npos, e.file().find("exceptions_test.cpp"));
    }
    EXPECT_EQ("Agent::ParseFailed", (VELMO_EXC(ParseFailed) % "x").code());
    EXPECT_EQ("OptParsingError", (VELMO_EXC(OptParsingError) % "x").code());
}

TEST(Exceptions, PlainTextWithInnerException) {
    Exc<&SshConnectionFault> inner = innerFault();
    Exc<&CantRetrieveDump> outer = VELMO_EXC_INNER(CantRetrieveDump, inner);
    const std::string text = formatPlainTextMessage(outer);

    const std::string sep = "\nInner exception:\n";
    size_t at = text.find(sep);
    ASSERT_NE(std::string::npos, at);
    std::string first = text.substr(0, at), second = text.substr(at + sep.size());
    std::regex block(R"((\w+)\[([0-9a-f-]{36})\]: (.*) \[(.*):(\d+)\]\n(.*))");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(first, m, block)) << first;
    EXPECT_EQ("CantRetrieveDump", m[1]);
    EXPECT_EQ(outer.id(), m[2]);
    EXPECT_EQ("Error during dump retrieval", m[3]);
    EXPECT_EQ(std::to_string(outer.line()), m[5]);
    ASSERT_TRUE(std::regex_match(second, m, block)) << second;
    EXPECT_EQ("SshConnectionFault", m[1]);
    EXPECT_EQ(inner.id(), m[2]);
    EXPECT_EQ("Lost connection with the remote host", m[3]);
    EXPECT_EQ(std::to_string(inner.line()), m[5]);
    EXPECT_NE(std::string::npos, m[6].str().find("innerFault"));
}

TEST(Exceptions, CloneOwnsItsInnerException) {
    std::unique_ptr<ExTraceable> clone;
    {
        auto outer = std::make_unique<Exc<&CantRetrieveDump>>(
            VELMO_EXC_INNER(CantRetrieveDump, VELMO_EXC(CantRetrieveDumpFile) % "agent stderr"));
        clone.reset(outer->clone());
    }
    auto* copy = dynamic_cast<Exc<&CantRetrieveDump>*>(clone.get());
    ASSERT_NE(nullptr, copy);
    ASSERT_NE(nullptr, copy->inner());
    EXPECT_NE(std::string::npos, std::string(copy->inner()->what()).find("agent stderr"));
    EXPECT_NE(std::string::npos, formatPlainTextMessage(*clone).find("CantRetrieveDumpFile"));
}

TEST(Exceptions, UuidShape) {
    for (int i = 0; i < 50; ++i) {
        std::string id = newUUID();
        ASSERT_EQ(36u, id.size());
        EXPECT_EQ('4', id[14]);
        EXPECT_EQ('8', id[19]);
        for (int dash : {8, 13, 18, 23}) EXPECT_EQ('-', id[dash]);
        EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f-]{36}")));
    }
    EXPECT_NE(newUUID(), newUUID());
}

TEST(Exceptions, WrongArgumentCountDoesNotThrowFromWhat) {
    auto e = VELMO_EXC(FileWrite) % "only one";
    EXPECT_NO_THROW(e.what());
    EXPECT_NE(std::string::npos, std::string(e.what()).find("FileWrite"));
}
