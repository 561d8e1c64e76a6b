#ifndef PLATFORM_CORE_HASH_H
#define PLATFORM_CORE_HASH_H

#include <vunkcore/hash.h>

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

/// Pairs, reached by key in constant time and walked in the order in which their keys were first set.
struct VUNKSZHASH {
	using Pair = std::pair<const std::string, std::string>;

	VUNKSZHASH() = default;
	// A copy's order would be one of the original's nodes; they move along with the map.
	VUNKSZHASH(VUNKSZHASH &&) = default;
	VUNKSZHASH &operator=(VUNKSZHASH &&) = default;

	const Pair *Find(std::string_view key) const;
	void Set(std::string_view key, std::string_view value);
	const std::vector<const Pair *> &InOrder() const { return order; }

private:
	struct ViewHash {
		using is_transparent = void;
		size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
	};

	std::unordered_map<std::string, std::string, ViewHash, std::equal_to<>> values;
	std::vector<const Pair *> order; // of the map's nodes, which do not move
};

#endif
