# The account of a recording. Compares the frames that brund-sim queued with the daemon's statistics
# and with the records in the capture files.
($brund[0]) as $b | ($stats[0]) as $s | ($captures[0]) as $c
| {
    seen: $b.seen,
    matched: $b.matched,
    queued: $b.queued,
    captures: $b.captures,
    accepted: $s.frames_accepted,
    refused: $s.frames_refused,
    records: ([$c[].frames] | add // 0),
    files: ($c | length),
    not_queued: $b.refused,
    not_queued_by_reason: ($b.refused_by_reason | with_entries(select(.value > 0))),
    dropped_by_kernel: $b.dropped_by_kernel
  }
| .differences = [
    (select(.queued != .accepted + .refused)
      | "queued \(.queued), but accepted + refused = \(.accepted + .refused)"),
    (select(.records != .accepted)
      | "accepted \(.accepted), but \(.records) records in the files")
  ]
| .balanced = (.differences == [])
