rule h { strings: $a = { 41 /* } */ 42 // }
 43 } $b = { 41 // 42 }
 condition: any of them }
