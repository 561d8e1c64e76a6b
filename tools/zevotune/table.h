#ifndef ZEVOTUNE_TABLE_H
#define ZEVOTUNE_TABLE_H

#include "style.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct Cell {
	Cell(std::string cellText, Style cellStyle = Style::kPlain) : text(std::move(cellText)), style(cellStyle) {}
	Cell(const char *cellText) : text(cellText) {}

	std::string text;
	Style style = Style::kPlain;
};

/// Rows of cells in columns as wide as their widest cell.
class Table {
public:
	explicit Table(const std::vector<std::string> &header) { Add({header.begin(), header.end()}); }

	/// As many cells as the header has.
	void Add(std::vector<Cell> cells);

	/// A line of its own between the rows, in no column. It may be empty.
	void AddLine(std::string_view text, Style style = Style::kPlain);

	/// Where lines are limited, the last column is broken between words; what does not fit even then sticks out.
	std::string Text(const Look &look = {}) const;

private:
	struct Row {
		std::vector<Cell> cells;
		bool isLine = false;
	};
	std::vector<Row> rows;
};

#endif
