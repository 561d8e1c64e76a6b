#include <vunkcore/model.h>

#include "common/model_value.h"

int VUNKCSupportRAID(void)
{
	return vunkc::ModelSays("support_raid", "yes");
}
