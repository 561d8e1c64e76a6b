#include "table.h"

#include "output.h"

#include <algorithm>

namespace {

constexpr size_t kGap = 2;
constexpr size_t kMinBroken = 20; // a narrower column is not read more easily than one that sticks out

// The words of a text, in lines of so many characters.
std::vector<std::string> Broken(const std::string &text, size_t columns)
{
	std::vector<std::string> lines(1);
	for (size_t start = 0; start <= text.size();) {
		const size_t end = std::min(text.find(' ', start), text.size());
		const std::string word = text.substr(start, end - start);
		if (!lines.back().empty() && Width(lines.back()) + 1 + Width(word) > columns)
			lines.emplace_back();
		lines.back() += (lines.back().empty() ? "" : " ") + word;
		start = end + 1;
	}
	return lines;
}

} // namespace

void Table::Add(std::vector<Cell> cells)
{
	for (Cell &cell : cells)
		cell.text = Printable(cell.text);
	rows.push_back({std::move(cells)});
}

void Table::AddLine(std::string_view text, Style style)
{
	rows.push_back({{Cell(Printable(text), style)}, true});
}

std::string Table::Text(const Look &look) const
{
	const size_t last = rows[0].cells.size() - 1;
	std::vector<size_t> widths(last + 1);
	for (const Row &row : rows)
		for (size_t i = 0; !row.isLine && i < widths.size(); ++i)
			widths[i] = std::max(widths[i], Width(row.cells[i].text));
	size_t indent = 0;
	for (size_t i = 0; i < last; ++i)
		indent += widths[i] + kGap;
	const bool breaks = look.columns >= indent + kMinBroken;

	std::string text;
	for (const Row &row : rows) {
		std::string line;
		size_t blanks = 0; // owed before the next text, so that no line ends in them
		const auto append = [&](const std::string &part, Style style, size_t width) {
			if (!part.empty())
				line += std::string(blanks, ' ') + Styled(part, style, look);
			blanks = (part.empty() ? blanks : 0) + width - std::min(width, Width(part)) + kGap;
		};
		for (size_t i = 0; !row.isLine && i < last; ++i)
			append(row.cells[i].text, row.cells[i].style, widths[i]);
		const Cell &end = row.cells.back();
		if (row.isLine || !breaks) {
			append(end.text, end.style, 0);
		} else {
			const std::vector<std::string> parts = Broken(end.text, look.columns - indent);
			append(parts[0], end.style, 0);
			for (size_t i = 1; i < parts.size(); ++i)
				line += '\n' + std::string(indent, ' ') + Styled(parts[i], end.style, look);
		}
		text += line + '\n';
	}
	return text;
}
