// Display colour and brightness (class 19): the entry points the Hal API
// reaches (see color_backend.h for the back ends behind them).
#pragma once

#include <cstdint>

uint32_t DisplayColorInit(void** out);
uint32_t DisplayColorQuery(void* context, uint32_t code, void* buffer, uint32_t size, uint32_t* returned);
uint32_t DisplayColorSet(void* context, uint32_t code, void* input, uint32_t inputSize, uint32_t* arg5,
                         uint32_t arg6);
