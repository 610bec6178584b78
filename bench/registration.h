#pragma once

namespace bench {

void registerReceiveBenchmarks();
void registerSessionBenchmarks();
void registerTextBenchmarks();

}  // namespace bench
