private global rule P { meta: id = "P" action = "block" condition: filesize > 1 }
private rule Q { meta: id = "Q" action = "silent" condition: P }
rule A { meta: id = "A" action = "block"  condition: Q and any of (Q) }
