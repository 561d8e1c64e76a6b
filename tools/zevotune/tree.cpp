#include "tree.h"

#include "output.h"

#include <algorithm>

namespace {

constexpr size_t kColumns = 80;

struct Shapes {
	std::string bar;
	std::string fork;
	std::string end;
};

const Shapes &ShapesOf(Branches branches)
{
	static const Shapes kAscii{"|", "|-", "`-"};
	static const Shapes kUnicode{"│", "├─", "└─"};
	return branches == Branches::kAscii ? kAscii : kUnicode;
}

// A word that fits into no line sticks out.
std::string Wrapped(std::string_view text, const std::string &firstIndent, const std::string &nextIndent)
{
	std::string lines;
	std::string line = firstIndent;
	bool empty = true;
	for (size_t start = 0; start <= text.size();) {
		const size_t end = std::min(text.find(' ', start), text.size());
		const std::string_view word = text.substr(start, end - start);
		if (!empty && Width(line) + 1 + Width(word) > kColumns) {
			lines += line.erase(line.find_last_not_of(' ') + 1) + '\n';
			line = nextIndent;
			empty = true;
		}
		line.append(empty ? "" : " ").append(word);
		empty = false;
		start = end + 1;
	}
	return lines + line + '\n';
}

std::string Drawn(const std::vector<Node> &nodes, const Shapes &shapes, const std::string &indent)
{
	std::string lines;
	for (const Node &node : nodes) {
		const bool last = &node == &nodes.back();
		const std::string below = indent + (last ? " " : shapes.bar) + "  ";
		lines += Wrapped(node.text, indent + (last ? shapes.end : shapes.fork) + ' ',
		                 below + (node.below.empty() ? " " : shapes.bar) + ' ');
		lines += Drawn(node.below, shapes, below);
	}
	return lines;
}

} // namespace

std::string Tree(std::string_view title, const std::vector<Node> &nodes, Branches branches)
{
	if (nodes.empty())
		return std::string(title) + ": none\n";
	return std::string(title) + '\n' + Drawn(nodes, ShapesOf(branches), "");
}
