#ifndef ZEVOTUNE_TREE_H
#define ZEVOTUNE_TREE_H

#include <string>
#include <string_view>
#include <vector>

enum class Branches { kAscii, kUnicode };

/// A line of a tree, and what hangs below it.
struct Node {
	std::string text;
	std::vector<Node> below = {};
};

/// The title, and the nodes below it or ": none". Lines are broken between words at 80 columns.
std::string Tree(std::string_view title, const std::vector<Node> &nodes, Branches branches);

#endif
