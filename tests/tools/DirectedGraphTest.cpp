// Tests of the graph of numbered nodes and its cycles.
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tables/DirectedGraph.h"

namespace Tessel::Tool {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(DirectedGraph, LinksAreKeptInTheirOrder) {
  const DirectedGraph links(3, {{0, 2}, {1, 0}, {0, 1}});
  EXPECT_EQ(links.size(), 3U);
  EXPECT_THAT(links.of(0), ElementsAre(2, 1));
  EXPECT_THAT(links.of(1), ElementsAre(0));
  EXPECT_THAT(links.of(2), IsEmpty());
  EXPECT_THAT(links.reversed().of(0), ElementsAre(1));
}

TEST(DirectedGraph, ComponentsAreNumberedFromWhatTheyLeadTo) {
  // 0 <-> 1 -> 2 <-> 3, and 4 alone.
  const Components components =
      componentsOf(DirectedGraph(5, {{0, 1}, {1, 0}, {1, 2}, {2, 3}, {3, 2}}));
  EXPECT_EQ(components.of[0], components.of[1]);
  EXPECT_EQ(components.of[2], components.of[3]);
  EXPECT_GT(components.of[0], components.of[2]);
  EXPECT_THAT(components.nodes.of(components.of[4]), ElementsAre(4));
}

TEST(DirectedGraph, AChainOfAMillionNodesIsWalkedWithoutRecursion) {
  constexpr DirectedGraph::Node length = 1000000;
  std::vector<Link> chain;
  for (DirectedGraph::Node node = 0; node + 1 < length; ++node) chain.push_back({node, node + 1});
  EXPECT_THAT(cyclesOf(DirectedGraph(length, chain), {0}, {}), IsEmpty());
  chain.push_back({length - 1, 0});
  const auto cycles = cyclesOf(DirectedGraph(length, chain), {0}, {});
  ASSERT_EQ(cycles.size(), 1U);
  EXPECT_EQ(cycles[0].path.size(), length + 1U);
}

TEST(DirectedGraph, OfEachComponentAShortestCycleIsFound) {
  // 0 -> 1 -> 2 -> 0 with a short cut 1 -> 0; 3 <-> 4; 5 names itself.
  const DirectedGraph links(6, {{0, 1}, {1, 2}, {2, 0}, {1, 0}, {3, 4}, {4, 3}, {5, 5}});
  const auto cycles = cyclesOf(links, {2, 0, 1, 4, 5}, {});
  ASSERT_EQ(cycles.size(), 2U);
  EXPECT_THAT(cycles[0].path, ElementsAre(2, 0, 1, 2));
  EXPECT_FALSE(cycles[0].isNew);
  EXPECT_THAT(cycles[1].path, ElementsAre(4, 3, 4));
}

TEST(DirectedGraph, OnlyComponentsOfTheNodesAreAskedAbout) {
  const DirectedGraph links(4, {{0, 1}, {1, 0}, {2, 3}, {3, 2}});
  const auto cycles = cyclesOf(links, {3}, {});
  ASSERT_EQ(cycles.size(), 1U);
  EXPECT_THAT(cycles[0].path, ElementsAre(3, 2, 3));
}

TEST(DirectedGraph, ACycleIsNewWhenAnAddedLinkClosesIt) {
  // 0 <-> 1 was there; 0 -> 2 leads nowhere; 0 -> 3 leads back.
  const std::vector<Link> links = {{0, 1}, {1, 0}, {0, 2}, {0, 3}, {3, 1}};
  const auto harmless = cyclesOf(DirectedGraph(4, {{0, 1}, {1, 0}, {0, 2}}), {0}, {{0, 2}});
  ASSERT_EQ(harmless.size(), 1U);
  EXPECT_FALSE(harmless[0].isNew);
  EXPECT_THAT(harmless[0].path, ElementsAre(0, 1, 0));
  const auto closing = cyclesOf(DirectedGraph(4, links), {0}, {{0, 2}, {0, 3}});
  ASSERT_EQ(closing.size(), 1U);
  EXPECT_TRUE(closing[0].isNew);
  EXPECT_THAT(closing[0].path, ElementsAre(0, 3, 1, 0));
}

}  // namespace
}  // namespace Tessel::Tool
