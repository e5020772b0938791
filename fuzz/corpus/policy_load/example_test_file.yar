// The harmless file with which people try whether a scanner works. Its text stands here in two pieces, so that other
// scanners leave this file alone.

rule Antivirus_Test_File : test
{
  meta:
    id = "ex-0001"
    action = "block"
    severity = "low"
    score = 10
    harmless = true
    description = "The standard anti-virus test file"

  strings:
    $head = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$"
    $tail = "-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*"

  condition:
    filesize <= 128 and $head at 0 and $tail at 33
}
