#include "tarvex_exchange.h"

tarvex_extension_registry_t tarvex_i_exchange_observer_registry = {};
