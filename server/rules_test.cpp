#include "server/rules.h"

#include <gtest/gtest.h>

using namespace tavrel_server;

TEST(ElementRules, ParseAcceptsTheGrammarAndTrims) {
  std::vector<ElementRule> rules;
  std::string err;
  ASSERT_TRUE(parse_element_rules(
      "# comment\r\n\r\n  select /p/src/** latest@dev  \r\nselect *.c label:REL1\nselect /p/a.txt version:main/2\n"
      "select /p/*/x none\nselect * latest",
      &rules, &err))
      << err;
  ASSERT_EQ(rules.size(), 5u);
  EXPECT_EQ(rules[0].pattern_kind, ElementRule::SUBTREE_GLOB);
  EXPECT_EQ(rules[0].selector, ElementRule::LATEST_BRANCH);
  EXPECT_EQ(rules[0].arg, "dev");
  EXPECT_EQ(rules[1].selector, ElementRule::LABEL);
  EXPECT_EQ(rules[2].arg, "main/2");
  EXPECT_EQ(rules[3].selector, ElementRule::NONE);
  EXPECT_EQ(rules[4].pattern_kind, ElementRule::ANY);
}

TEST(ElementRules, ParseErrorsNameTheLine) {
  struct {
    const char* text;
    const char* fragment;
  } cases[] = {
      {"select * latest\nselct * latest\n", "line 2"},
      {"select * newest", "unknown selector"},
      {"select src/a.c latest", "must start with the SILO tag"},
      {"select /p/**/x latest", "\"**\""},
      {"select * latest extra", "expected"},
      {"select /** latest", "needs a tag"},
  };
  for (const auto& c : cases) {
    std::vector<ElementRule> rules;
    std::string err;
    EXPECT_FALSE(parse_element_rules(c.text, &rules, &err)) << c.text;
    EXPECT_NE(err.find(c.fragment), std::string::npos) << err;
  }
}

TEST(ElementRules, PatternMatching) {
  struct {
    const char* rule;
    const char* path;
    bool match;
  } cases[] = {
      {"select * none", "/p/a/b", true},
      {"select *.c none", "/p/a/b.c", true},
      {"select *.c none", "/p/a.c/b", false},
      {"select /p/src/** none", "/p/src", true},
      {"select /p/src/** none", "/p/src/x/y.c", true},
      {"select /p/src/** none", "/p/srcx/y.c", false},
      {"select /p/src/** none", "/p", false},
      {"select /p/*/x none", "/p/a/x", true},
      {"select /p/*/x none", "/p/a/b/x", false},
      {"select /p/s?c/** none", "/p/src/deep/er", true},
      {"select /p/a.txt none", "/p/a.txt", true},
  };
  for (const auto& c : cases) {
    std::vector<ElementRule> rules;
    std::string err;
    ASSERT_TRUE(parse_element_rules(c.rule, &rules, &err)) << err;
    EXPECT_EQ(rules[0].matches(c.path), c.match) << c.rule << " vs " << c.path;
  }
}

TEST(LoadRules, PathsAndTags) {
  std::string path, err;
  EXPECT_TRUE(parse_load_rule("load /proj/src\r", &path, &err));
  EXPECT_EQ(path, "/proj/src");
  EXPECT_TRUE(parse_load_rule("load /proj", &path, &err));
  for (const char* bad : {"load proj/src", "load /proj/../x", "load /proj/", "load /proj//a", "loads /proj",
                          "load /pr oj", "load /proj/./a"}) {
    EXPECT_FALSE(parse_load_rule(bad, &path, &err)) << bad;
  }
  EXPECT_TRUE(valid_silo_tag("/a.b_c-9"));
  EXPECT_FALSE(valid_silo_tag("/a=b"));
  EXPECT_FALSE(valid_silo_tag("/.."));
  EXPECT_FALSE(valid_silo_tag("a"));
  EXPECT_FALSE(valid_entry_name(std::string(256, 'x')));
  EXPECT_TRUE(valid_entry_name(std::string(255, 'x')));
}
