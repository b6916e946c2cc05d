// Payload cipher and response parsing. XXTEA is one dependency chain: each
// word needs the one written before it, about 5 dependent operations per
// word and round, so n words take about 5 * n * q cycles at best. The
// "ns_per_word_round" counter puts each run against that floor; divide it by
// BM_CycleReference's "ns_per_cycle" for cycles per word-round (5 is the
// floor). The reference times a chain of dependent one-cycle additions, which
// gives the clock actually running where hardware counters are unavailable.
#include <benchmark/benchmark.h>

#include <string>

#include "collector/CollectorResponse.h"
#include "crypto/SHA256_CBC.h"

namespace {

qs::Bytes payload(std::size_t size) {
  qs::Bytes data(size);
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(i * 131 + 7);
  return data;
}

void setCipherCounters(benchmark::State& state, std::size_t words) {
  const double wordRounds = static_cast<double>(words) * static_cast<double>(6 + 52 / words);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
  state.counters["ns_per_word_round"] =
      benchmark::Counter(wordRounds * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_Encrypt(benchmark::State& state) {
  const qs::Bytes data = payload(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    qs::Bytes cipher = qs::SHA256_CBC::encrypt(data, "0123456789abcdef");
    benchmark::DoNotOptimize(cipher.data());
  }
  setCipherCounters(state, (data.size() + 3) / 4 + 1);
}
BENCHMARK(BM_Encrypt)->Arg(64)->Arg(1024)->Arg(16384);

void BM_Decrypt(benchmark::State& state) {
  const qs::Bytes data = payload(static_cast<std::size_t>(state.range(0)));
  const qs::Bytes cipher = qs::SHA256_CBC::encrypt(data, "0123456789abcdef");
  for (auto _ : state) {
    auto plain = qs::SHA256_CBC::decrypt(cipher, "0123456789abcdef");
    benchmark::DoNotOptimize(plain->data());
  }
  setCipherCounters(state, cipher.size() / 4);
}
BENCHMARK(BM_Decrypt)->Arg(64)->Arg(1024)->Arg(16384);

// A typical answer to an app-init activity.
const char* const kTypicalAnswer =
    R"({"do":["sid|a1b2c3d4-e5f6-4711-8899-aabbccddeeff","vid|0f1e2d3c-4b5a-4697-8877-665544332211",)"
    R"("bake|_qs3|330|eyJ0IjoiUVMzMTUiLCJ2IjoxLCJzIjoiYWJjZGVmMDEyMzQ1Njc4OSJ9.c2lnbmF0dXJl|true|300"]})";

void BM_ParseResponse(benchmark::State& state) {
  const std::optional<qs::Value> body = qs::Value::parse(kTypicalAnswer);
  for (auto _ : state) {
    auto response = qs::CollectorResponse::initWithCollectorResponse(body, 1.7e9, nullptr);
    benchmark::DoNotOptimize(response);
  }
}
BENCHMARK(BM_ParseResponse);

// The same, starting from the body bytes as they arrive.
void BM_ParseResponseFromBytes(benchmark::State& state) {
  const std::string bytes = kTypicalAnswer;
  for (auto _ : state) {
    std::optional<qs::Value> body = qs::Value::parse(bytes, nullptr, false);
    auto response = qs::CollectorResponse::initWithCollectorResponse(body, 1.7e9, nullptr);
    benchmark::DoNotOptimize(response);
  }
}
BENCHMARK(BM_ParseResponseFromBytes);

#if defined(__x86_64__)
void BM_CycleReference(benchmark::State& state) {
  constexpr int kAddsPerIteration = 1000;
  std::uint64_t x = 1;
  const std::uint64_t y = 3;
  for (auto _ : state) {
    for (int i = 0; i < kAddsPerIteration / 10; ++i) {
      asm volatile(
          "add %1, %0\n\tadd %1, %0\n\tadd %1, %0\n\tadd %1, %0\n\tadd %1, %0\n\t"
          "add %1, %0\n\tadd %1, %0\n\tadd %1, %0\n\tadd %1, %0\n\tadd %1, %0"
          : "+r"(x)
          : "r"(y));
    }
  }
  benchmark::DoNotOptimize(x);
  state.counters["ns_per_cycle"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kAddsPerIteration,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_CycleReference);
#endif

}  // namespace
