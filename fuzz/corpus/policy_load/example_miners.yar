// Programs that earn somebody else's money.

rule Miner_Pool_Protocol : miner
{
  meta:
    id = "ex-0401"
    action = "block"
    severity = "medium"
    score = 60
    description = "Speaks the mining pools' protocol: a pool address beside one of the protocol's methods"

  strings:
    $url = /stratum\+(tcp|ssl|tls|udp):\/\//
    $method_subscribe = "mining.subscribe"
    $method_authorize = "mining.authorize"
    $method_submit = "mining.submit"
    $method_login = /"method"\s{0,4}:\s{0,4}"(login|keepalived)"/
    $option_level = "donate-level"
    $option_algorithm = "randomx"

  condition:
    filesize < 32MB and (
      ($url and any of ($method_*, $option_*)) or
      (uint32be(0) == 0x7f454c46 and 2 of ($method_subscribe, $method_authorize, $method_submit))
    )
}
