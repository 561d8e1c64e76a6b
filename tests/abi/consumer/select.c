/* A C program of somebody else's: uses one function of each library. */
#include <stdio.h>

#include <zevotuned/zevotuned.h>

int main(void)
{
	VUNKSZLIST *names = VUNKCSzListAlloc(64);
	int status = names == NULL || ZEVOProfileList(&names) != 0;

	for (int i = 0; status == 0 && i < names->nItem; i++)
		puts(VUNKCSzListGet(names, i));
	VUNKCSzListFree(names);
	return status;
}
