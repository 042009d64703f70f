#include "kl/message/node_index.h"

#include <gtest/gtest.h>

#include <vector>

namespace kl {
namespace {

struct Node {
  uint32_t id;
};

TEST(NodeIndex, FindsWhatWasInsertedAndNotWhatWasErased) {
  std::vector<Node> nodes(5000);
  NodeIndex<Node> index;
  EXPECT_FALSE(index.active());
  index.activate(4);
  for (uint32_t i = 0; i < nodes.size(); ++i) {
    nodes[i].id = 0x20000000u | (i * 64);  // ids that differ only above the low bits
    index.insert(&nodes[i]);
  }
  for (uint32_t i = 0; i < nodes.size(); i += 2) index.erase(nodes[i].id);
  index.erase(0x12345);  // absent: no effect
  for (uint32_t i = 0; i < nodes.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(index.find(nodes[i].id), i % 2 ? &nodes[i] : nullptr);
  }
  EXPECT_EQ(index.find(0x20000001u), nullptr);
}

// Erasing and inserting again and again reuses deleted slots or rehashes them away, so the
// probe always ends at a never-used slot.
TEST(NodeIndex, ChurnKeepsLookupsEnding) {
  Node a{1}, b{2};
  NodeIndex<Node> index;
  index.activate(0);
  index.insert(&a);
  for (uint32_t round = 0; round < 100000; ++round) {
    b.id = 2 + round;
    index.insert(&b);
    ASSERT_EQ(index.find(b.id), &b);
    index.erase(b.id);
    ASSERT_EQ(index.find(b.id), nullptr);
  }
  EXPECT_EQ(index.find(1), &a);
}

}  // namespace
}  // namespace kl
