// Path functions: collapse and canonicalisation cost, and one directory walk.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "korvel/paths.h"

namespace {

void BM_CollapsePath(benchmark::State& state) {
  const char* src = "/usr/./local/../lib//x/y/z/../../w/./v/";
  char dst[128];
  for (auto _ : state) benchmark::DoNotOptimize(koCollapsePath(dst, src, strlen(src)));
}
BENCHMARK(BM_CollapsePath);

void BM_CanonicalizeMissingTail(benchmark::State& state) {
  const char* in = "/tmp/no_such_dir_k/a/../b/c";
  static char out[8707];
  for (auto _ : state) benchmark::DoNotOptimize(koCanonicalizePath(out, 8706, in, strlen(in)));
}
BENCHMARK(BM_CanonicalizeMissingTail);

void BM_DirectorySize(benchmark::State& state) {
  char dir[] = "/tmp/korvel_bench_XXXXXX";
  if (mkdtemp(dir) == nullptr) return state.SkipWithError("mkdtemp");
  const std::string base = dir;
  for (int i = 0; i < state.range(0); ++i) {
    FILE* f = fopen((base + "/f" + std::to_string(i)).c_str(), "w");
    fputs("data", f);
    fclose(f);
  }
  for (auto _ : state) benchmark::DoNotOptimize(koGetDirectorySize(dir));
  for (int i = 0; i < state.range(0); ++i) unlink((base + "/f" + std::to_string(i)).c_str());
  rmdir(dir);
}
BENCHMARK(BM_DirectorySize)->Arg(10)->Arg(1000);

}  // namespace

BENCHMARK_MAIN();
