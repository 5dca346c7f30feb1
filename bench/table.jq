# Combines Google Benchmark's results, one file per program, into one document with the important
# ratios: those of the medians and of the minimums of all rounds.

def rounds($benchmark; $counter):
  [.[] | select(.run_type == "iteration" and .repetitions > 1)
   | select(.run_name | startswith($benchmark + "/")) | .[$counter]];
def median: sort | if length == 0 then null else .[(length - 1) / 2 | floor] end;
def hundredths: . * 100 | round / 100;

def compared: [
  ["a frame among 1,000 files / among 10", "framesAmongFiles", "ns_1000", "ns_10", 1.2],
  ["a frame among 20,000 files / among 10", "framesAmongFiles", "ns_20000", "ns_10", 1.2],
  ["a frame, queue to free / libpcap loop", "pipelineAndLibpcap", "ns_pipeline", "ns_libpcap", 1.5],
  ["  with the opening of the files", "pipelineAndLibpcap", "ns_pipeline_with_opening",
    "ns_libpcap_with_opening", null],
  ["  / libpcap, frames in memory", "pipelineAndLibpcap", "ns_pipeline", "ns_libpcap_memory", null],
  ["  with half of the buffer / with all of it", "halfTheBuffer", "ns_half", "ns_whole", null],
  ["a whole capture / its copy of the template", "captures", "ns_capture", "ns_copy", null],
  ["ring, one thread / ck_ring", "ringOneThread", "ns_zorlib", "ns_ck", null],
  ["ring, one thread / rte_ring", "ringOneThread", "ns_zorlib", "ns_rte", null],
  ["ring, two threads / ck_ring", "ringTwoThreads", "ns_zorlib", "ns_ck", null],
  ["ring, two threads / rte_ring", "ringTwoThreads", "ns_zorlib", "ns_rte", null]
];

[.[].benchmarks[]] as $all
| {
    contexts: (map({key: (.context.executable | split("/") | last), value: .context}) | from_entries),
    ratios: [
      compared[] as [$what, $benchmark, $of, $to, $limit]
      | ($all | rounds($benchmark; $of)) as $ours
      | ($all | rounds($benchmark; $to)) as $theirs
      | select(($ours | length) > 0 and ($theirs | all(. != null)))
      | {
          what: $what,
          ns: ($ours | median | round),
          other_ns: ($theirs | median | round),
          ratio: (($ours | median) / ($theirs | median) | hundredths),
          ratio_of_minimums: (($ours | min) / ($theirs | min) | hundredths),
          limit: $limit
        }
    ],
    captures_per_second: ($all | rounds("captures"; "per_second") | median // 0 | round),
    benchmarks: $all
  }
