#pragma once
// The product feature table. The container doesn't read it itself: the class
// is declared in the kit SDK, and the program exports it for the kits that run
// in it.
#include <string>

#include "tarnkit/product_feature.h"

namespace ProductAdapt {

// Loads another file instead of the one beside the executable ("" goes back
// to that one); the next Reset reads it.
void SetProductFeatureConfigPathForTesting(const std::string& path);

}  // namespace ProductAdapt
