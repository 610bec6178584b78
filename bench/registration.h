#pragma once

namespace bench {

void registerReceiveBenchmarks();
void registerTextBenchmarks();

}  // namespace bench
