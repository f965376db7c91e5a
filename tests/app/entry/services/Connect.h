#pragma once

#include "Steps.h"

class Connect
{
public:
    Connect() { Steps::add("coordinator"); }
    ~Connect() { Steps::all.append("coordinator ends"); }
};
