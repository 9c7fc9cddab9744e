#include "http/parser/basic_url_path.h"

#include "tests/http/parser/expect.h"
#include "tests/http/parser/url_graph.h"

#include <gtest/gtest.h>

using test::expect_hit;
using test::expect_no_hit;
using test::url_graph;

TEST(basic_url_path, path_query_and_fragment) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/x?y#z"));
    expect_hit(graph.path.hit(), 0, 6);
    expect_hit(graph.path.path(), 0, 2);
    expect_hit(graph.path.query(), 3, 4);
    expect_hit(graph.path.fragment(), 5, 6);
}

TEST(basic_url_path, a_path_alone) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/x?y#z"));
    EXPECT_TRUE(graph.path.match("/a/b%20c"));
    expect_hit(graph.path.hit(), 0, 8);
    expect_hit(graph.path.path(), 0, 8);
    expect_no_hit(graph.path.query());
    expect_no_hit(graph.path.fragment());
}

TEST(basic_url_path, an_empty_path_is_a_path) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/x?y#z"));
    EXPECT_TRUE(graph.path.match(""));
    expect_hit(graph.path.hit(), 0, 0);
    expect_hit(graph.path.path(), 0, 0);
    expect_no_hit(graph.path.query());
    expect_no_hit(graph.path.fragment());
    EXPECT_TRUE(graph.path.match("a b", 1));
    expect_hit(graph.path.hit(), 1, 1);
}

TEST(basic_url_path, a_query_without_a_path) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("?q"));
    expect_hit(graph.path.path(), 0, 0);
    expect_hit(graph.path.query(), 1, 2);
    expect_hit(graph.path.hit(), 0, 2);
}

TEST(basic_url_path, a_fragment_without_a_query) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/p#f"));
    expect_hit(graph.path.path(), 0, 2);
    expect_no_hit(graph.path.query());
    expect_hit(graph.path.fragment(), 3, 4);
}

TEST(basic_url_path, an_empty_query_or_fragment_is_there) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/?#"));
    expect_hit(graph.path.path(), 0, 1);
    expect_hit(graph.path.query(), 2, 2);
    expect_hit(graph.path.fragment(), 3, 3);
    expect_hit(graph.path.hit(), 0, 3);
}

TEST(basic_url_path, a_further_question_mark_belongs_to_the_query) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/a?b?c#d"));
    expect_hit(graph.path.query(), 3, 6);
}

TEST(basic_url_path, further_marks_belong_to_the_fragment) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/a#b#c?d"));
    expect_no_hit(graph.path.query());
    expect_hit(graph.path.fragment(), 3, 8);
}

TEST(basic_url_path, ends_before_a_character_outside_the_class) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/a b?c"));
    expect_hit(graph.path.hit(), 0, 2);
    expect_no_hit(graph.path.query());
    EXPECT_TRUE(graph.path.match("/a?b c#d"));
    expect_hit(graph.path.hit(), 0, 4);
    expect_hit(graph.path.query(), 3, 4);
    expect_no_hit(graph.path.fragment());
    EXPECT_TRUE(graph.path.match("/a#b\"c"));
    expect_hit(graph.path.fragment(), 3, 4);
}

TEST(basic_url_path, stops_at_the_end_position) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/x?y#z", 0, 2));
    expect_hit(graph.path.hit(), 0, 2);
    expect_no_hit(graph.path.query());
    EXPECT_TRUE(graph.path.match("/x?y#z", 0, 3));
    expect_hit(graph.path.query(), 3, 3);
    EXPECT_TRUE(graph.path.match("/x?y#z", 0, 4));
    expect_no_hit(graph.path.fragment());
}

TEST(basic_url_path, invalidate_forgets_all_three) {
    url_graph graph;
    EXPECT_TRUE(graph.path.match("/x?y#z"));
    EXPECT_TRUE(graph.path_char.match("a"));
    graph.path.invalidate();
    expect_no_hit(graph.path.hit());
    expect_no_hit(graph.path.path());
    expect_no_hit(graph.path.query());
    expect_no_hit(graph.path.fragment());
    expect_no_hit(graph.path_char.hit());
}
