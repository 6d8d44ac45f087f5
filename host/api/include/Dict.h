// Name of the host's dictionary classes; the stand-in's tables are built differently.
#pragma once

#define PDict(type) type##PDict
