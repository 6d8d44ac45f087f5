// Hash keys. Only the name exists here: connections take one and never look into it.
#pragma once

class HashKey;
