// A C++ program of somebody else's: types that cross the interface, and an exported function with a C++ name.
#include <zevotuned/zevotuned.h>

#include <iostream>

int main()
{
	std::vector<Profile> profiles;
	if (TuneProfileListWithVector(profiles) != 0)
		return 1;
	for (const Profile &profile : profiles)
		std::cout << profile.name << '\n';
}
