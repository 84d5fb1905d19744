-- Makes a manual page of a page of docs/: the part below one of its headings ("section"), or
-- the whole page; links to other pages become the names of their manual pages.
local pages = {
  ["capread.md"] = "capread(1)", ["fwlog.md"] = "fwlog(1)", ["tmf-tool.md"] = "tmf(1)",
  ["postgresql.md"] = "fwlog-postgresql(1)", ["tmf-python.md"] = "tmf-python(3)",
  ["message-file.md"] = "tmf(5)", ["forward-log.md"] = "kestro-forward-log(5)",
  ["operations.md"] = "docs/operations.md",
  ["capture-record.md"] = "kestro-capture-record(5)", ["changes-as-data.md"] = "kestro-json(5)",
}

-- What stands below the heading, up to the next one of its level or above.
local function part(blocks, heading)
  local found, level = {}, nil
  for _, block in ipairs(blocks) do
    if block.t == "Header" then
      if level and block.level <= level then break end
      if not level and pandoc.utils.stringify(block) == heading then
        level = block.level
        goto continue
      end
    end
    if level then table.insert(found, block) end
    ::continue::
  end
  assert(level, "there is no heading " .. heading)
  return found, level
end

-- The longest piece of a cell that the pattern finds.
local function longest(cell, pattern)
  local most = 0
  for piece in pandoc.utils.stringify(pandoc.Div(cell.contents)):gmatch(pattern) do
    most = math.max(most, utf8.len(piece) or #piece)
  end
  return most
end

-- The widths of columns that take no more than the room: narrow ones what they have, the others
-- share what is left by what they have, none less than its longest word.
local function widths(lines, words, room)
  local found, open = {}, #lines
  local again = true
  while again do
    again = false
    local sum = 0
    for i, line in ipairs(lines) do sum = sum + (found[i] and 0 or math.sqrt(line)) end
    for i, line in ipairs(lines) do
      local share = room * math.sqrt(line) / sum
      local fixed = line <= room / open and line or share < words[i] and words[i]
      if not found[i] and fixed then
        found[i], room, open, again = fixed, room - fixed, open - 1, true
        break
      end
    end
    if not again then
      for i, line in ipairs(lines) do found[i] = found[i] or math.floor(room * math.sqrt(line) / sum) end
    end
  end
  return found, open > 0
end

-- A table that is wider than a page gets columns of a width, whose cells are broken into lines.
local LINE, GAP, FULL = 66, 3, 70 -- FULL: what the writer takes for a width of 1

function Table(tbl)
  local lines, words = {}, {}
  local rows = {table.unpack(tbl.head.rows)}
  for _, body in ipairs(tbl.bodies) do
    for _, row in ipairs(body.body) do table.insert(rows, row) end
  end
  for _, row in ipairs(rows) do
    for i, cell in ipairs(row.cells) do
      lines[i] = math.max(lines[i] or 1, longest(cell, "[^\n]+"))
      words[i] = math.max(words[i] or 1, longest(cell, "%S+"))
    end
  end
  local wanted, broken = widths(lines, words, LINE - GAP * (#lines - 1))
  for i, spec in ipairs(tbl.colspecs) do
    tbl.colspecs[i] = {spec[1], broken and wanted[i] / FULL or nil}
  end
  return tbl
end

-- Level 1 is the page's own heading, which is its name here.
local function raised(blocks, by)
  return pandoc.walk_block(pandoc.Div(blocks), {
    Header = function(header)
      header.level = math.max(header.level - by, 1)
      return header
    end,
  }).content
end

function Code(code)
  return pandoc.Strong{pandoc.Str(code.text)}
end

function CodeBlock(block)
  local lines = {".PP", ".RS 2", ".nf"}
  for line in (block.text .. "\n"):gmatch("([^\n]*)\n") do
    line = line:gsub("\\", "\\e"):gsub("-", "\\-")
    table.insert(lines, line:match("^[.']") and "\\&" .. line or line)
  end
  table.insert(lines, ".fi")
  table.insert(lines, ".RE")
  return pandoc.RawBlock("man", table.concat(lines, "\n"))
end

function Link(link)
  local page = link.target:match("^([^#]*)")
  local name = pages[page]
  if name then
    local text = pandoc.utils.stringify(link)
    if text == page then return pandoc.Str(name) end
    return link.content .. {pandoc.Space(), pandoc.Str("(see " .. name .. ")")}
  end
  return link.content
end

function Pandoc(doc)
  local heading = doc.meta.part and pandoc.utils.stringify(doc.meta.part)
  local blocks, level = doc.blocks, 1
  if heading then
    blocks, level = part(blocks, heading)
  else
    table.remove(blocks, 1)
  end
  blocks = raised(blocks, level)
  local head = pandoc.Blocks{
    -- One long page, on which no table is in the way of the next.
    pandoc.RawBlock("man", ".ad l\n.nh\n.if n .pl 10000v"),
    pandoc.Header(1, "NAME"),
    pandoc.Para{pandoc.Str(pandoc.utils.stringify(doc.meta.title) .. " - " .. pandoc.utils.stringify(doc.meta.about))},
  }
  if blocks[1].t ~= "Header" then head:insert(pandoc.Header(1, "DESCRIPTION")) end
  head:extend(blocks)
  doc.blocks = head
  return doc
end
