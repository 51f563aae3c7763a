#!/usr/bin/env python3
"""Turns the benchmarks' Google Benchmark JSON files (and the memory runs' lines) into
the README's markdown table: each pair's library/floor ratio per N, the
growth from 100 to 1,000 certificates, and the peak memory of a listing."""
import json
import sys

TARGETS = {
    "List": "≤ 1.5x",
    "ListCold": "≤ 1.5x",
    "SignRsa": "≤ 1.3x",
    "SignEc": "≤ 1.3x",
    "SignRsaChecked": "reported",
    "SignEcChecked": "reported",
    "TokenSignRsa": "≤ 1.2x",
    "TokenSignEc": "≤ 1.2x",
    "Decrypt": "reported",
    "Chain": "reported",
    "InitDeInit": "reported",
}
WHAT = {
    "List": "`X509_Auth_LoadClientCertificates`, files unchanged since the last call / read, parse, thumbprint, verify each file",
    "ListCold": "`X509_Auth_LoadClientCertificates`, every file changed since the last call / the same floor",
    "SignRsa": "`X509_Auth_SignHash` RSA-2048 / read the key file, sign",
    "SignEc": "`X509_Auth_SignHash` P-256 / read the key file, sign",
    "SignRsaChecked": "`X509_Auth_SignHash` RSA-2048 / list the certificates directory and take every file's status, read the key file, sign",
    "SignEcChecked": "`X509_Auth_SignHash` P-256 / list the certificates directory and take every file's status, read the key file, sign",
    "TokenSignRsa": "`X509_Auth_SignHash` RSA-2048 on a SoftHSM2 token / libp11 signature, key found, logged in",
    "TokenSignEc": "`X509_Auth_SignHash` P-256 on a SoftHSM2 token / libp11 signature, key found, logged in",
    "Decrypt": "`X509_Auth_Decrypt` RSA PKCS#1 / read the key file, decrypt",
    "Chain": "`X509_Auth_GetChainedCAsForCertificate` / find the CA by thumbprint, encode it",
    "InitDeInit": "`X509_Auth_Init` + `X509_Auth_DeInit` / load the PKCS#11 module, list slots, unload",
}


def medians(paths):
    times = {}
    benchmarks = []
    for path in paths:
        with open(path) as f:
            benchmarks += json.load(f)["benchmarks"]
    for b in benchmarks:
        if b.get("aggregate_name", "median") != "median":
            continue
        name = b.get("run_name", b["name"]).replace("_median", "")
        base, n = name.rsplit("/", 1)
        kind, side = base[len("BM_"):].rsplit("_", 1)
        times[(kind, side, int(n))] = b["cpu_time"] * {"us": 1, "ms": 1000, "ns": 0.001}[b["time_unit"]]
    return times


def main():
    jsons = [a for a in sys.argv[1:] if a.endswith(".json")]
    memory = [a for a in sys.argv[1:] if a.endswith(".jsonl")]
    times = medians(jsons)
    ns = [10, 100, 1000]
    # Growth of a pair measured without N=100 is shown from 10 to 1000.
    print("| pair (library / floor) | N=10 | N=100 | N=1000 | library growth 100→1000 | target |")
    print("|---|---|---|---|---|---|")
    for kind in TARGETS:
        cells = []
        for n in ns:
            lib, floor = times.get((kind, "Library", n)), times.get((kind, "Floor", n))
            if lib is None or floor is None:
                cells.append("–")
            else:
                cells.append(f"{lib / floor:.2f}x ({lib:,.0f} / {floor:,.0f} µs)")
        lib100, lib1000 = times.get((kind, "Library", 100)), times.get((kind, "Library", 1000))
        lib10 = times.get((kind, "Library", 10))
        if lib100 and lib1000:
            growth = f"{lib1000 / lib100:.1f}x"
        elif lib10 and lib1000:
            growth = f"({lib1000 / lib10:.1f}x from 10)"
        else:
            growth = "–"
        print(f"| {WHAT[kind]} | " + " | ".join(cells) + f" | {growth} | {TARGETS[kind]} |")
    if memory:
        print()
        print("| listing of N certificates | peak RSS before | peak RSS after | listing's peak |")
        print("|---|---|---|---|")
        with open(memory[0]) as f:
            for line in f:
                m = json.loads(line)
                extra = m["peak_after_kib"] - m["peak_before_kib"]
                print(f"| N={m['n']} | {m['peak_before_kib']:,} KiB | {m['peak_after_kib']:,} KiB "
                      f"| {extra:,} KiB |")


if __name__ == "__main__":
    main()
